#include "tools/klctl/output/show.h"

#include <gtest/gtest.h>

#include <clocale>
#include <iostream>
#include <limits>

#include "kl/conventions.h"
#include "tests/support/process/child.h"

namespace klctl {
namespace {

constexpr std::size_t kWide = 1000;

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

TEST(TableForm, AnObjectIsALineForEachMember) {
  EXPECT_EQ(objectTable(Json::parse(R"({"name": "eth0", "mtu": 1500, "up": true})")),
            "name eth0\n"
            "mtu  1500\n"
            "up   true\n");
}

TEST(TableForm, NothingIsShownAsNothing) {
  EXPECT_EQ(objectTable(Json::object()), "");
  EXPECT_EQ(objectsTable({}, {"id"}, kWide), "");
}

TEST(TableForm, ObjectsShareColumnsAndNumbersStandRight) {
  const std::vector<Json> objects = {Json::parse(R"({"id": 1, "name": "lo"})"),
                                     Json::parse(R"({"id": 12, "descr": "to the provider"})")};
  EXPECT_EQ(objectsTable(objects, {"id", "name", "descr"}, kWide),
            "id name descr\n"
            " 1 lo   \n"
            "12      to the provider\n");
}

TEST(TableForm, TheElementsOfAnArrayStandBelowEachOther) {
  const std::vector<Json> objects = {
      Json::parse(R"({"id": 1, "addresses": ["::1", "fe80::1"], "up": true})")};
  EXPECT_EQ(objectsTable(objects, {"id", "addresses", "up"}, kWide),
            "id addresses up\n"
            " 1 ::1       true\n"
            "   fe80::1   \n");
}

TEST(TableForm, WhereTheLinesWouldNotFitObjectsStandBelowEachOther) {
  const std::vector<Json> objects = {Json::parse(R"({"id": 1, "name": "eth0", "hidden": 7})"),
                                     Json::parse(R"({"id": 2, "name": "\u00e9th1"})")};
  if (std::setlocale(LC_ALL, "C.UTF-8") == nullptr) GTEST_SKIP() << "this C library has no C.UTF-8";
  const std::string beside = "id name\n 1 eth0\n 2 \xc3\xa9th1\n";
  EXPECT_EQ(objectsTable(objects, {"id", "name"}, 7), beside);
  EXPECT_EQ(objectsTable(objects, {"id", "name"}, 6),
            "id   1\nname eth0\n"
            "\n"
            "id   2\nname \xc3\xa9th1\n");
}

TEST(TableForm, TheLineHasNoLimitWhereThereIsNoTerminal) {
  const auto result = kl::test::runInChild([] { std::cout << lineWidth(); });
  EXPECT_EQ(result.out, std::to_string(std::numeric_limits<std::size_t>::max()));
}

TEST(TableForm, AMessageInAMessageIsShownAsJson) {
  EXPECT_EQ(objectTable(Json::parse(R"({"m": {"a": 1}})")), "m {\"a\":1}\n");
}

TEST(TableForm, BytesThatATerminalMustNotGetAreSpelledOut) {
  Json object;
  object["name"] = std::string("a\x1b[2Jb\xff\0c", 9);
  EXPECT_EQ(objectTable(object).find('\x1b'), std::string::npos);
  EXPECT_NE(objectTable(object).find("\\x1b"), std::string::npos) << objectTable(object);
  EXPECT_NE(objectTable(object).find("\\0c"), std::string::npos) << objectTable(object);
}

}  // namespace klctl
