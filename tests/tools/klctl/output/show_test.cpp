#include "tools/klctl/output/show.h"

#include <gtest/gtest.h>

#include <clocale>
#include <iostream>
#include <limits>

#include "kl/conventions.h"
#include "tests/support/builders.h"
#include "tests/support/process/child.h"
#include "tests/tools/klctl/hostile_text.h"

namespace klctl {
namespace {

using kl::test::flat;

constexpr std::size_t kWide = 1000;

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

TEST(TableForm, ATextOrANameCannotSteerTheTerminal) {
  Json object;
  object["a"] = kHostile;
  EXPECT_EQ(objectTable(object), "a " + kHarmless + "\n");
  EXPECT_EQ(objectsTable({object}, {"a"}, kWide), "a\n" + kHarmless + "\n");
  EXPECT_EQ(objectTable(Json{{kHostile, 1}}), kHarmless + " 1\n");
  EXPECT_EQ(objectTable(Json{{"a", Json::array({"b\n", std::string("c\0d", 3)})}}),
            "a b\\x0a\n"
            "  c\\x00d\n");
}

TEST(TableForm, TextThatIsEscapedStillHasItsColumn) {
  const std::vector<Json> objects = {Json{{"a", "\x1b\\"}, {"b", "x"}},
                                     Json{{"a", "long enough"}, {"b", "y"}}};
  EXPECT_EQ(objectsTable(objects, {"a", "b"}, kWide),
            "a           b\n"
            "\\x1b\\\\      x\n"
            "long enough y\n");
}

TEST(Show, JsonHasOnlyCharactersThatATerminalPrints) {
  const Json value{{"name", "\x1b\x7f\xc2\x9b\xe2\x80\xae\xe2\x80\xa8\\\xc3\xa9\xf0\x9f\x98\x80"}};
  const std::string text = jsonLine(value);
  EXPECT_EQ(text, "{\"name\":\"\\u001b\\u007f\\u009b\\u202e\\u2028\\\\\xc3\xa9\xf0\x9f\x98\x80\"}\n");
  EXPECT_EQ(Json::parse(text), value);
  EXPECT_EQ(objectTable(Json{{"m", Json{{"name", "\xc2\x9b\\"}}}}), "m {\"name\":\"\\u009b\\\\\"}\n");
}

TEST(Show, ADumpCannotSteerTheTerminal) {
  kl::message m;
  m.insert(kl::STD_DESCR, kHostile);
  EXPECT_NE(dumpText(m).find(kHarmless), std::string::npos) << dumpText(m);
  EXPECT_TRUE(dumpText(m).ends_with("------\n"));
}

TEST(Show, UnitsStandBehindNumbersAndInTitles) {
  FieldNames names;
  names.add("mtu", 0x08000004);
  names.setUnit(0x08000004, "bytes");
  names.add("rx_bytes", 0x10000006);
  names.setUnit(0x10000006, "bytes");
  const Json object = Json::parse(R"({"mtu": 1500, "rx_bytes": 7})");
  EXPECT_EQ(objectTable(object, names), "mtu      1500 bytes\nrx_bytes 7\n");
  EXPECT_EQ(objectsTable({object}, {"mtu", "rx_bytes"}, kWide, names),
            "mtu bytes rx_bytes\n     1500        7\n");
}

TEST(Show, SecretsAreInNoDump) {
  FieldNames names;
  for (const unsigned int id : {0x20000001u, 0x00000002u, 0x08000003u, 0xa0000004u}) names.setSecret(id);
  kl::message m;
  m.insert_string(0x20000001, "swordfish");
  m.insert_bool(0x00000002, true);
  m.insert_u32(0x08000003, 4711);
  m.insert_string_array(0xa0000004, {"swordfish"});
  m.insert_string(0x20000005, "herring");
  kl::message outer(m);
  outer.insert_message(0x28000006, m.flattened());
  outer.insert_message_array(0xa8000007, {m.flattened(), m.flattened()});
  const std::string text = dumpText(outer, names);
  for (const char* secret : {"swordfish", "4711", "true", "0x00000002"})
    EXPECT_EQ(text.find(secret), std::string::npos) << secret << text;
  EXPECT_NE(text.find("herring"), std::string::npos) << text;
  names.showSecrets(FieldNames::Secrets::kShown);
  EXPECT_NE(dumpText(outer, names).find("swordfish"), std::string::npos);
}

TEST(Show, MessagesThatAreNestedTooDeepEndInADump) {
  FieldNames names;
  names.setSecret(0x20000001);
  kl::message m;
  m.insert_string(0x20000001, "swordfish");
  for (int i = 0; i < 100; ++i) {
    kl::message outer;
    outer.insert_message(0x28000002, m.flattened());
    m = outer;
  }
  EXPECT_EQ(dumpText(m, names).find("swordfish"), std::string::npos);
}

}  // namespace klctl
