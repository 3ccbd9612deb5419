#include "tools/klctl/verbs/introspect.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "kl/conventions.h"
#include "kl/description.h"
#include "kl/services.h"
#include "tests/support/builders.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/hostile_text.h"
#include "tests/tools/klctl/recorded_channels.h"

namespace klctl {
namespace {

// A service 300 that says `told_` of itself, if anything, and a folder of descriptions.
class Introspection : public testing::Test {
 protected:
  Introspection() {
    char name[] = "/tmp/klctl-introspect-XXXXXX";
    folder_ = ::mkdtemp(name);
  }
  ~Introspection() override { std::filesystem::remove_all(folder_); }

  void install(const std::string& text) { std::ofstream(folder_ / "door.toml") << text; }

  kl::message answer(const kl::message& request) const {
    kl::message reply;
    const auto to = request.get(kl::SYS_TO, {});
    if (to.size() == 2 && to[1] == kl::HANDLER_DESCRIPTION) {
      if (!told_) return kl::errorMsg(kl::ERROR_BRKPATH, "");
      reply.insert(kl::STD_DESCR, *told_);
    } else {
      kl::message door;
      door.insert(kl::STD_ID, 300);
      door.insert(kl::SVC_NAME, "door");
      reply.insert(kl::STD_OBJS, {kl::test::flat(door)});
    }
    return reply;
  }

  std::string run(const char* option = nullptr) {
    RecordedChannels channels([this](const kl::message& m) { return answer(m); });
    std::vector<const char*> words = {"--fields", folder_.c_str(), "introspect", "door"};
    if (option != nullptr) words.push_back(option);
    const std::string text = channels.perform(parsed(words));
    remarked_ = channels.remarked;
    return text;
  }

  std::filesystem::path folder_;
  std::optional<std::string> told_;
  std::string remarked_;
};

constexpr char kInstalled[] =
    "fields = [{ name = \"pin\", field = \"string:1\", secret = true }]\n[service]\nname = \"door\"\n";

}  // namespace

TEST_F(Introspection, AnEqualDescriptionNeedsNoRemark) {
  install(kInstalled);
  told_ = kInstalled;
  EXPECT_EQ(run(), "door\n\nfields\n  pin  string:1 secret\n");
  EXPECT_EQ(remarked_, "");
}

TEST_F(Introspection, DifferencesAreRemarkedAndNamesAdded) {
  install(kInstalled);
  told_ =
      "fields = [{ name = \"pin\", field = \"string:1\" }, { name = \"new\", field = \"u32:7\", secret = "
      "true }]\n";
  EXPECT_EQ(run(), "door\n\nfields\n  pin  string:1 secret\n  new  u32:7\n");
  EXPECT_EQ(remarked_, "door: field new: the process says u32:7, none is installed\n");
}

TEST_F(Introspection, WithoutAnAnswerTheInstalledOneIsShown) {
  install(kInstalled);
  EXPECT_EQ(run(), "door\n\nfields\n  pin  string:1 secret\n");
  EXPECT_EQ(
      remarked_,
      "door does not describe itself: std failure: broken path (2); this is the installed description\n");
}

TEST_F(Introspection, WithoutAnInstalledOneTheProcessIsShown) {
  told_ = kInstalled;
  EXPECT_EQ(run(), "door\n\nfields\n  pin  string:1\n");
  EXPECT_EQ(remarked_, "no description of door is installed; this is what the process says\n");
}

TEST_F(Introspection, WithNeitherItFails) {
  const Told told = failureOf([&] { (void)run(); });
  EXPECT_EQ(told.status, 1);
  EXPECT_NE(told.sentence.find("and no description of it is installed"), std::string::npos) << told.sentence;
}

TEST_F(Introspection, NonsenseOfAProcessIsToldAndHarmless) {
  install(kInstalled);
  for (const std::string& nonsense :
       {std::string("fields = 7"), std::string("]]\x1b"), std::string(5000, '#')}) {
    told_ = nonsense;
    EXPECT_EQ(run(), "door\n\nfields\n  pin  string:1 secret\n");
    EXPECT_NE(remarked_.find("what door says of itself is "), std::string::npos) << remarked_;
  }
  told_ =
      "[service]\ntitle = \"\\u001b[2J\\u202e\"\ndoc = \"\\u009b\"\n[[objects]]\nname = \"a\"\ndoc = "
      "\"\\u001b\"\n"
      "commands = [{ name = \"c\", code = 1, right = \"read\", takes = [\"\\u001b\"] }]\n";
  for (const char* option : {static_cast<const char*>(nullptr), "--json"}) {
    const std::string text = run(option);
    for (const char* part : {"\x1b", "\xc2\x9b", "\xe2\x80\xae"})
      EXPECT_EQ(text.find(part), std::string::npos) << text;
  }
}

}  // namespace klctl
