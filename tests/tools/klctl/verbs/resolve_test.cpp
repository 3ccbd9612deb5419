#include "tools/klctl/verbs/resolve.h"

#include <gtest/gtest.h>

#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"

namespace klctl {
namespace {

const std::string kDictionaries = std::string(KL_SOURCE_DIR) + "/tools/fields";

CommandLine resolvedWords(std::vector<const char*> words) {
  words.insert(words.begin(), {"--fields", kDictionaries.c_str()});
  const CommandLine line = parsed(words);
  return resolved(line, dictionaryFor(line, line.path.service));
}

std::string refusalOf(const std::vector<const char*>& words) {
  const Told told = failureOf([&] { (void)resolvedWords(words); });
  EXPECT_EQ(told.status, 2);
  return told.sentence;
}

}  // namespace

TEST(Resolve, AnObjectIsItsHandler) {
  const CommandLine rule = resolvedWords({"get", "log/rule:3"});
  EXPECT_EQ(handlersOf(rule.path), std::vector<unsigned int>{1});
  EXPECT_EQ(pathText(rule.path), "log/rule:3");
  EXPECT_TRUE(handlersOf(resolvedWords({"get", "log/line"}).path).empty());
  EXPECT_EQ(handlersOf(resolvedWords({"get", "log/rule/7"}).path), (std::vector<unsigned int>{1, 7}));
}

TEST(Resolve, ACommandIsItsNumber) {
  EXPECT_EQ(resolvedWords({"send", "loader", "explain_rights"}).command, 0x60001u);
  EXPECT_EQ(resolvedWords({"send", "loader/service", "CMD_LIST_RIGHTS"}).command, 0x60002u);
  EXPECT_EQ(resolvedWords({"get", "log/rule", "getcount"}).command, 0xfe0015u);
}

TEST(Resolve, ANameThatThereIsNotIsRefusedWithTheNearest) {
  EXPECT_EQ(refusalOf({"get", "log/rul"}),
            "log has no object 'rul'; did you mean 'rule'? (klctl help log lists them)");
  EXPECT_EQ(refusalOf({"send", "loader", "list_right"}),
            "there is no command 'list_right'; did you mean 'list_rights'? (a number names any; klctl help "
            "loader lists those of loader)");
  EXPECT_EQ(refusalOf({"send", "loader/7", "list_rights"}),
            "the command 'list_rights' is one of loader/service");
  EXPECT_EQ(refusalOf({"get", "stranger/thing"}),
            "there is no description of stranger that says what 'thing' is");
  EXPECT_EQ(refusalOf({"send", "stranger", "dance"}), "there is no command 'dance' (a number names any)");
}

TEST(Resolve, SecretsAreShownAsTheCommandLineWants) {
  const auto isShown = [](const std::vector<const char*>& words) {
    FieldNames names = dictionaryFor(parsed(words), "").names;
    names.setSecret(5);
    return names.isMarked(5) ? "marked" : names.isHidden(5) ? "left out" : "shown";
  };
  EXPECT_STREQ(isShown({"get", "netif"}), "marked");
  EXPECT_STREQ(isShown({"get", "netif", "--json"}), "left out");
  EXPECT_STREQ(isShown({"get", "netif", "--json", "--secrets"}), "shown");
}

}  // namespace klctl
