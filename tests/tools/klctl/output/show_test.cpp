#include "tools/klctl/output/show.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"

namespace klctl {
namespace {

kl::message::flat_message flat(const kl::message& m) {
  kl::message::flat_message bytes;
  m.flatten(bytes);
  return bytes;
}

}  // namespace

TEST(Show, JsonStandsOverSeveralLinesOrOnOne) {
  const Json value{{"id", 2}, {"name", "\xff"}};
  EXPECT_EQ(jsonText(value), "{\n  \"id\": 2,\n  \"name\": \"\xef\xbf\xbd\"\n}\n");
  EXPECT_EQ(jsonLine(value), "{\"id\":2,\"name\":\"\xef\xbf\xbd\"}\n");
}

TEST(Show, EveryFieldThatAnObjectHasIsAColumn) {
  kl::message a;
  a.insert(kl::STD_ID, 1);
  kl::message b;
  b.insert(kl::STD_ID, 2);
  b.insert(kl::STD_DESCR, "x");
  const FieldNames names;
  const auto rows = toJson({flat(a), flat(b)}, names);
  EXPECT_EQ(columnsOf(rows, names), (std::vector<std::string>{"id", "descr"}));
  EXPECT_EQ(columnsOf({}, names), std::vector<std::string>{});
}

TEST(Show, ADumpNamesEveryField) {
  kl::message m;
  m.insert(kl::STD_ID, 2);
  EXPECT_NE(dumpText(m).find("STD_ID"), std::string::npos);
}

}  // namespace klctl
