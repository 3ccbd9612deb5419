#include "services/describe/reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "services/describe/check.h"

namespace describe {
namespace {

const std::filesystem::path kFiles = std::filesystem::path(KL_SOURCE_DIR) / "tests/services/describe";

std::vector<std::filesystem::path> filesOf(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

// "LINE: TEXT" of every mistake in a file.
std::string mistakesOf(const std::filesystem::path& file) {
  common::Mistakes mistakes;
  const Description description = readFile(file.string(), OtherKeys::kRefused, mistakes);
  check(description, file.string(), mistakes);
  std::string all;
  for (const common::Mistake& m : mistakes) all += std::to_string(m.line) + ": " + m.text + "\n";
  return all;
}

// The mistakes that the lines of a bad file that begin with #! expect.
std::string expectedOf(const std::filesystem::path& file) {
  common::Mistakes mistakes;
  const std::string text = common::readFile(file.string(), mistakes).value_or("");
  std::string all;
  for (std::size_t from = 0; from < text.size();) {
    const std::size_t end = text.find('\n', from);
    const std::string line = text.substr(from, end - from);
    if (line.starts_with("#! ")) all += line.substr(3) + "\n";
    from = end + 1;
  }
  return all;
}

Description goodOne(const char* name) {
  common::Mistakes mistakes;
  return readFile((kFiles / "good" / name).string(), OtherKeys::kRefused, mistakes);
}

}  // namespace

TEST(DescriptionFiles, GoodOnesHaveNoMistakes) {
  const auto files = filesOf(kFiles / "good");
  EXPECT_GE(files.size(), 3u);
  for (const auto& file : files) EXPECT_EQ(mistakesOf(file), "") << file;
}

TEST(DescriptionFiles, BadOnesHaveTheMistakesThatTheyName) {
  const auto files = filesOf(kFiles / "bad");
  EXPECT_GE(files.size(), 10u);
  for (const auto& file : files) {
    EXPECT_NE(expectedOf(file), "") << file;
    EXPECT_EQ(mistakesOf(file), expectedOf(file)) << file;
  }
}

TEST(DescriptionFiles, ThoseThatAreShippedHaveNoMistakes) {
  for (const auto& file : filesOf(std::filesystem::path(KL_SOURCE_DIR) / "tools/fields")) {
    EXPECT_EQ(mistakesOf(file), "") << file;
  }
}

TEST(DescriptionFiles, ThoseOfTheDocumentHaveNoMistakes) {
  common::Mistakes mistakes;
  const std::string page =
      common::readFile(std::string(KL_SOURCE_DIR) + "/docs/descriptions.md", mistakes).value_or("");
  unsigned int found = 0;
  for (std::size_t from = page.find("```toml\n"); from != std::string::npos;
       from = page.find("```toml\n", from)) {
    from += 8;
    const std::string text = page.substr(from, page.find("```", from) - from);
    check(read(text, "page.toml", OtherKeys::kRefused, mistakes), "page.toml", mistakes);
    ++found;
  }
  EXPECT_EQ(found, 2u);
  for (const common::Mistake& m : mistakes) ADD_FAILURE() << m.describe();
}

TEST(DescriptionReader, AFileThatIsNotThereIsAMistake) { EXPECT_NE(mistakesOf(kFiles / "nowhere.toml"), ""); }

TEST(DescriptionReader, AServiceWithoutANameIsCalledAsItsFile) {
  EXPECT_EQ(goodOne("names_only.toml").name, "names_only");
  EXPECT_EQ(goodOne("names_only.toml").nameSpace, "names_only");
}

TEST(DescriptionReader, TypeAndIdAreAnotherWayToWriteAField) {
  const Description names = goodOne("names_only.toml");
  EXPECT_EQ(names.findField("speed")->id, 0x08000007u);
  EXPECT_EQ(names.findField("notes")->id, 0xa0fe0009u);
  EXPECT_EQ(names.findField("nothing"), nullptr);
}

TEST(DescriptionReader, EveryKeyOfAServiceAndOfItsFieldsIsRead) {
  const Description d = goodOne("leases.toml");
  EXPECT_EQ(d.name, "leases");
  EXPECT_EQ(d.id, 300u);
  EXPECT_EQ(d.title, "DHCP leases");
  EXPECT_EQ(d.version, "1.2");
  EXPECT_EQ(d.doc, "Who has which address, and until when.");
  EXPECT_EQ(d.nameSpace, "dhcp_leases");
  const Field& mac = *d.findField("mac");
  EXPECT_TRUE(mac.isRequired);
  EXPECT_EQ(mac.min, 6u);
  EXPECT_EQ(mac.max, 6u);
  EXPECT_FALSE(d.findField("id")->isRequired);
  EXPECT_EQ(d.findField("host")->since, "1.1");
  EXPECT_EQ(d.findField("host")->doc, "name that the client gave");
  EXPECT_EQ(d.findField("expires")->unit, "s");
  EXPECT_EQ(d.findField("expires")->deprecated, "the field \"until\"");
  EXPECT_EQ(d.findField("state")->values, (std::vector<Value>{{"offered", 1}, {"taken", 2}}));
  EXPECT_EQ(d.settings.at(0).initial, "3600");
  EXPECT_TRUE(d.settings.at(1).isSecret);
  EXPECT_EQ(d.topics.at(0).number, 300u);
}

TEST(DescriptionReader, FieldsWrittenWhereTheyAreUsedAreFieldsOfTheService) {
  const Description d = goodOne("leases.toml");
  std::vector<std::string> names;
  for (const Field& field : d.fields) names.push_back(field.name);
  EXPECT_EQ(names,
            (std::vector<std::string>{"id", "host", "mac", "state", "expires", "older_than", "released"}));
  EXPECT_EQ(d.objects.at(0).fields, (std::vector<std::string>{"id", "mac", "state", "expires", "host"}));
}

TEST(DescriptionReader, StandardCommandsHaveTheirCodesAndRights) {
  const Object lease = goodOne("leases.toml").objects.at(0);
  EXPECT_FALSE(lease.handler.has_value());
  EXPECT_EQ(lease.key, "id");
  EXPECT_EQ(lease.store, "leases");
  EXPECT_TRUE(lease.isUndone);
  ASSERT_EQ(lease.commands.size(), 4u);
  EXPECT_EQ(lease.commands[0].name, "getall");
  EXPECT_EQ(lease.commands[0].code, 0xfe0004u);
  EXPECT_EQ(lease.commands[0].right, "read");
  EXPECT_EQ(lease.commands[3].right, "change");
  EXPECT_EQ(lease.commands[3].errors, (std::vector<std::string>{"unknownid"}));
}

TEST(DescriptionReader, CommandsOfOnesOwnSayWhatTheyTakeAndGive) {
  const Object pool = goodOne("leases.toml").objects.at(1);
  EXPECT_EQ(pool.handler, 1u);
  const Command release = pool.commands.at(0);
  EXPECT_FALSE(release.isStandard);
  EXPECT_EQ(release.code, 0x60001u);
  EXPECT_EQ(release.right, "change");
  EXPECT_EQ(release.takes, (std::vector<std::string>{"host", "older_than"}));
  EXPECT_EQ(release.gives, (std::vector<std::string>{"released"}));
  EXPECT_EQ(release.errors, (std::vector<std::string>{"busy", "notallowed"}));
}

TEST(DescriptionReader, WhatIsReservedHasAKindAndANumber) {
  const Description d = goodOne("leases.toml");
  using enum Reserved::Kind;
  ASSERT_EQ(d.reserved.size(), 6u);
  EXPECT_TRUE(d.reserved[0].names(kField, 0x10000007));
  EXPECT_TRUE(d.reserved[1].names(kSetting, 0x08000009));
  EXPECT_TRUE(d.reserved[2].names(kCommand, 0x60003, "lease"));
  EXPECT_TRUE(d.reserved[3].names(kObject, 5));
  EXPECT_TRUE(d.reserved[4].names(kTopic, 301));
  EXPECT_TRUE(d.reserved[5].names(kValue, 3, "state"));
}

TEST(DescriptionReader, KeysOfNewerFormatsAreIgnoredOnRequest) {
  common::Mistakes mistakes;
  const std::string text = "news = 1\nfields = [{ name = \"a\", field = \"u32:1\", color = \"red\" }]\n";
  const Description d = read(text, "new.toml", OtherKeys::kIgnored, mistakes);
  EXPECT_TRUE(mistakes.empty());
  EXPECT_EQ(d.fields.size(), 1u);
  (void)read(text, "new.toml", OtherKeys::kRefused, mistakes);
  EXPECT_EQ(mistakes.size(), 2u);
}

TEST(DescriptionReader, EveryPrefixOfAFileIsReadOrRefused) {
  common::Mistakes none;
  const std::string text = common::readFile((kFiles / "good/leases.toml").string(), none).value_or("");
  ASSERT_GT(text.size(), 1000u);
  for (std::size_t size = 0; size < text.size(); ++size) {
    common::Mistakes mistakes;
    const Description d = read(text.substr(0, size), "prefix.toml", OtherKeys::kRefused, mistakes);
    check(d, "prefix.toml", mistakes);
  }
}

}  // namespace describe
