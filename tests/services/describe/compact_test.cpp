#include "services/describe/compact.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "services/describe/json.h"
#include "services/describe/reader.h"
#include "tests/services/describe/described.h"

namespace describe {
namespace {

const std::filesystem::path kSource = KL_SOURCE_DIR;

Description readBack(const Description& description) {
  common::Mistakes mistakes;
  Description result = read(compactOf(description), "told", OtherKeys::kRefused, mistakes);
  for (const common::Mistake& m : mistakes) ADD_FAILURE() << m.describe();
  return result;
}

std::string fieldsText(int count, const std::string& doc) {
  std::string text = "fields = [\n";
  for (int i = 1; i <= count; ++i)
    text += "{ name = \"field_" + std::to_string(i) + "\", field = \"u32:" + std::to_string(i) +
            "\", unit = \"s\", doc = \"" + doc + "\", secret = true },\n";
  return text + "]\n";
}

}  // namespace

TEST(Compact, SaysTheSameAsTheDescription) {
  for (const char* file :
       {"tests/services/describe/good/leases.toml", "tests/services/describe/good/empty.toml",
        "tests/services/describe/good/names_only.toml", "tools/fields/netif.toml", "tools/fields/system.toml",
        "tests/tools/klgen/sample.toml"}) {
    common::Mistakes mistakes;
    const Description description = readFile((kSource / file).string(), OtherKeys::kRefused, mistakes);
    EXPECT_EQ(jsonOf(readBack(description)), jsonOf(description)) << file;
  }
}

TEST(Compact, EveryTextIsText) {
  const Description description = described(
      "fields = [{ name = \"a\", field = \"u32:1\", doc = \"x \\\"y\\\" \\\\ \\n\\u0001\\u007f \\u00e4\" "
      "}]\n");
  EXPECT_EQ(readBack(description).fields.at(0).doc, "x \"y\" \\ \n\x01\x7f \xc3\xa4");
}

TEST(Compact, SentencesGoFirstAndThenEverythingButNames) {
  EXPECT_EQ(readBack(described(fieldsText(10, "what it is"))).fields.at(9).doc, "what it is");
  const Description middle = readBack(described(fieldsText(50, std::string(60, 'x'))));
  EXPECT_EQ(middle.fields.at(49).doc, "");
  EXPECT_EQ(middle.fields.at(49).unit, "s");
  const Description many = readBack(described(fieldsText(80, std::string(60, 'x'))));
  EXPECT_EQ(many.fields.at(79).unit, "");
  EXPECT_EQ(many.fields.at(79).name, "field_80");
  EXPECT_TRUE(many.fields.at(79).isSecret);
  EXPECT_EQ(compactOf(described(fieldsText(500, "x"))), "");
}

TEST(Compact, TheShippedOnesCanBeCarried) {
  for (const auto& file : std::filesystem::directory_iterator(kSource / "tools/fields")) {
    common::Mistakes mistakes;
    const std::string text = compactOf(readFile(file.path().string(), OtherKeys::kRefused, mistakes));
    EXPECT_NE(text, "") << file.path();
    EXPECT_LE(text.size(), kMostCompactBytes);
  }
}

}  // namespace describe
