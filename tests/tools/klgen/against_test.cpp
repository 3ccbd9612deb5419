#include "tools/klgen/against.h"

#include <gtest/gtest.h>

#include "tests/tools/klgen/described.h"

namespace klgen {
namespace {

// "wire 2: text", one a line.
std::string breaks(const std::string& older, const std::string& newer) {
  std::string all;
  for (const Break& found : breaksOf(described(older), described(newer))) {
    all += (found.level == Level::kWire ? "wire " : "source ") + std::to_string(found.line) + ": " +
           found.text + "\n";
  }
  return all;
}

std::string field(const std::string& rest) { return "fields = [{ name = \"a\", " + rest + " }]\n"; }

std::string command(const std::string& rest) {
  return "fields = [{ name = \"a\", field = \"u32:1\" }, { name = \"must\", field = \"u32:2\", required = "
         "true }]\n"
         "[[objects]]\nname = \"o\"\ncommands = [" +
         rest + "]\n";
}

const std::string kGo = "{ name = \"go\", code = 7, right = \"read\", takes = [\"a\"], gives = [\"a\"] }";

}  // namespace

TEST(Against, ADescriptionBreaksNothingOfItself) {
  const auto d = sample();
  EXPECT_TRUE(breaksOf(d, d).empty());
}

TEST(Against, WhatIsAddedBreaksNothing) {
  EXPECT_EQ(breaks("", field("field = \"u32:1\", required = true")), "");
  EXPECT_EQ(breaks(field("field = \"u32:1\", values = { on = 1 }"),
                   field("field = \"u32:1\", values = { on = 1, off = 0 }")),
            "");
  EXPECT_EQ(breaks(command("\"getobj\""), command("\"getobj\", \"getall\", " + kGo)), "");
  EXPECT_EQ(breaks("", "topics = [{ name = \"t\", number = 300 }]\nreserved = [\"u32:9\"]\n"), "");
}

TEST(Against, WordsForPeopleMayChange) {
  EXPECT_EQ(breaks(field("field = \"u32:1\""), field("field = \"u32:1\", doc = \"x\", unit = \"s\", since = "
                                                     "\"1\", deprecated = true, secret = true")),
            "");
}

TEST(Against, AFieldHasItsIdForEver) {
  EXPECT_EQ(breaks(field("field = \"u32:1\""), field("field = \"u64:1\"")), "wire 1: \"a\" was u32:1\n");
  EXPECT_EQ(breaks(field("field = \"u32:1\""), field("field = \"u32[]:1\"")), "wire 1: \"a\" was u32:1\n");
}

TEST(Against, AFieldMayGoWhereItsIdIsReserved) {
  EXPECT_EQ(breaks(field("field = \"u32:1\""), ""),
            "wire 1: \"a\" is gone, and its number is not reserved\n");
  EXPECT_EQ(breaks(field("field = \"u32:1\""), "reserved = [\"u32:1\"]\n"), "source 1: \"a\" is gone\n");
  EXPECT_EQ(breaks("settings = [{ name = \"a\", field = \"u32:1\" }]\n", "reserved = [\"u32:1\"]\n"),
            "wire 1: \"a\" is gone, and its number is not reserved\n");
  EXPECT_EQ(breaks("settings = [{ name = \"a\", field = \"u32:1\" }]\n", "reserved = [\"setting u32:1\"]\n"),
            "source 1: \"a\" is gone\n");
}

TEST(Against, ANewNameBreaksSources) {
  EXPECT_EQ(breaks(field("field = \"u32:1\""), "\nfields = [{ name = \"b\", field = \"u32:1\" }]\n"),
            "source 2: \"a\" is called \"b\" now\n");
}

TEST(Against, ReservedStaysReserved) {
  EXPECT_EQ(breaks("reserved = [\"u32:1\"]\n", field("field = \"u32:1\"")),
            "wire 1: what line 1 of the older one reserves is no longer reserved\n");
}

TEST(Against, BoundsMayBecomeWider) {
  const std::string bounded = field("field = \"u32:1\", min = 2, max = 8");
  EXPECT_EQ(breaks(bounded, field("field = \"u32:1\", min = 1, max = 9")), "");
  EXPECT_EQ(breaks(bounded, field("field = \"u32:1\"")), "");
  EXPECT_EQ(breaks(bounded, field("field = \"u32:1\", min = 3, max = 7")),
            "wire 1: \"a\" could be less than 3\nwire 1: \"a\" could be more than 7\n");
  EXPECT_EQ(breaks(field("field = \"u32:1\""), bounded),
            "wire 1: \"a\" could be less than 2\nwire 1: \"a\" could be more than 8\n");
}

TEST(Against, UnitsAndWhatIsRequiredStay) {
  EXPECT_EQ(breaks(field("field = \"u32:1\", unit = \"s\""), field("field = \"u32:1\", unit = \"ms\"")),
            "wire 1: \"a\" was in s\n");
  EXPECT_EQ(breaks(field("field = \"u32:1\""), field("field = \"u32:1\", required = true")),
            "wire 1: \"a\" is required now\n");
  EXPECT_EQ(breaks(field("field = \"u32:1\", required = true"), field("field = \"u32:1\"")),
            "wire 1: \"a\" was required\n");
}

TEST(Against, ValuesKeepTheirNumbers) {
  const std::string on = field("field = \"u32:1\", values = { on = 1 }");
  EXPECT_EQ(breaks(on, field("field = \"u32:1\", values = { on = 2 }")),
            "wire 1: the value \"on\" of \"a\" was 1\n");
  EXPECT_EQ(breaks(on, field("field = \"u32:1\", values = { up = 1 }")),
            "source 1: \"on\" is called \"up\" now\n");
  EXPECT_EQ(breaks(on, field("field = \"u32:1\"")),
            "wire 1: the value \"on\" of \"a\" is gone, and its number is not reserved\n");
  EXPECT_EQ(breaks(on, "reserved = [\"value a 1\"]\n" + field("field = \"u32:1\"")),
            "source 1: the value \"on\" of \"a\" is gone\n");
  EXPECT_EQ(breaks(field("field = \"u32:1\""), on), "source 1: \"a\" is an enumeration now\n");
}

TEST(Against, CommandsKeepTheirCodesAndRights) {
  EXPECT_EQ(
      breaks(command(kGo),
             command("{ name = \"go\", code = 8, right = \"read\", takes = [\"a\"], gives = [\"a\"] }")),
      "wire 4: \"go\" had another code\n");
  EXPECT_EQ(
      breaks(command(kGo),
             command("{ name = \"go\", code = 7, right = \"none\", takes = [\"a\"], gives = [\"a\"] }")),
      "wire 4: \"go\" needed the right: read\n");
  EXPECT_EQ(
      breaks(command(kGo),
             command("{ name = \"run\", code = 7, right = \"read\", takes = [\"a\"], gives = [\"a\"] }")),
      "source 4: \"go\" is called \"run\" now\n");
  EXPECT_EQ(breaks(command(kGo), command("")),
            "wire 1: \"go\" of \"o\" is gone, and its number is not reserved\n");
  EXPECT_EQ(breaks(command(kGo), "reserved = [\"command o 7\"]\n" + command("")),
            "source 1: \"go\" of \"o\" is gone\n");
}

TEST(Against, CommandsTakeAndGiveWhatTheyDid) {
  EXPECT_EQ(breaks(command(kGo), command("{ name = \"go\", code = 7, right = \"read\" }")),
            "wire 4: what \"go\" takes had \"a\"\nwire 4: what \"go\" gives had \"a\"\n");
  EXPECT_EQ(
      breaks(
          command(kGo),
          command(
              "{ name = \"go\", code = 7, right = \"read\", takes = [\"a\", \"must\"], gives = [\"a\"] }")),
      "wire 4: what \"go\" takes has \"must\" now, which is required\n");
}

TEST(Against, ARequiredFieldIsMissedWhereItWas) {
  const std::string rest = "[[objects]]\nname = \"o\"\nfields = [";
  const std::string must = "fields = [{ name = \"must\", field = \"u32:2\", required = true }]\n";
  EXPECT_EQ(breaks(must + rest + "\"must\"]\n", "reserved = [\"u32:2\"]\n" + rest + "]\n"),
            "source 1: \"must\" is gone\nwire 2: \"o\" had \"must\", which was required\n");
}

TEST(Against, MembersKeepTheirOrder) {
  const auto object = [](const std::string& names) {
    return "fields = [{ name = \"a\", field = \"u32:1\" }, { name = \"b\", field = \"u32:2\" }, { name = "
           "\"c\", field "
           "= \"u32:3\" }]\n[[objects]]\nname = \"o\"\nfields = [" +
           names + "]\n";
  };
  EXPECT_EQ(breaks(object("\"a\", \"b\""), object("\"b\", \"a\"")),
            "source 2: \"o\" has its fields in another order\n");
  EXPECT_EQ(breaks(object("\"a\", \"b\""), object("\"c\", \"a\", \"b\"")), "");
}

TEST(Against, WhatIsReservedFollowsTheNameOfItsScope) {
  const std::string reserved = "reserved = [\"value a 3\"]\n";
  const std::string renamed = "fields = [{ name = \"b\", field = \"u32:1\" }]\n";
  EXPECT_EQ(breaks(reserved + field("field = \"u32:1\""), "reserved = [\"value b 3\"]\n" + renamed),
            "source 2: \"a\" is called \"b\" now\n");
  EXPECT_EQ(breaks(reserved + field("field = \"u32:1\""), renamed),
            "wire 1: what line 1 of the older one reserves is no longer reserved\n"
            "source 1: \"a\" is called \"b\" now\n");
  EXPECT_EQ(breaks(reserved + field("field = \"u32:1\""), "reserved = [\"u32:1\"]\n"),
            "source 1: \"a\" is gone\n");
}

TEST(Against, SettingsKeepTheirDefaultsAndBounds) {
  const auto setting = [](const std::string& rest) {
    return "settings = [{ name = \"a\", field = \"u32:1\"" + rest + " }]\n";
  };
  EXPECT_EQ(breaks(setting(", min = 1, max = 9, default = 5"), setting("")),
            "source 1: \"a\" had a default\nsource 1: \"a\" had a min\nsource 1: \"a\" had a max\n");
  EXPECT_EQ(breaks(setting(", default = 5"), setting(", default = 6, min = 0")), "");
}

TEST(Against, ObjectsStayWhereTheyAre) {
  const std::string fields =
      "fields = [{ name = \"a\", field = \"u32:1\" }, { name = \"b\", field = \"u32:2\" }]\n";
  const auto object = [&](const std::string& rest) { return fields + "objects = [{ " + rest + " }]\n"; };
  const std::string old = object("name = \"o\", handler = 1, key = \"a\", fields = [\"a\", \"b\"]");
  EXPECT_EQ(breaks(old, object("name = \"o\", handler = 2, key = \"a\", fields = [\"a\", \"b\"]")),
            "wire 2: \"o\" has another handler\n");
  EXPECT_EQ(breaks(old, object("name = \"o\", handler = 1, key = \"b\", fields = [\"a\", \"b\"]")),
            "wire 2: the key of \"o\" is another one\n");
  EXPECT_EQ(breaks(old, object("name = \"o\", handler = 1, key = \"a\", fields = [\"a\"]")),
            "wire 2: \"o\" had \"b\"\n");
  EXPECT_EQ(breaks(old, object("name = \"p\", handler = 1, key = \"a\", fields = [\"a\", \"b\"]")),
            "source 2: \"o\" is called \"p\" now\n");
  EXPECT_EQ(breaks(old, fields), "wire 1: \"o\" is gone, and its number is not reserved\n");
  EXPECT_EQ(breaks(old, fields + "reserved = [\"object 1\"]\n"), "source 1: \"o\" is gone\n");
}

TEST(Against, AServiceKeepsItsNumberAndItsTopics) {
  EXPECT_EQ(breaks("[service]\nid = 7\n", "[service]\nid = 8\n"),
            "wire 1: the number of the service is another one\n");
  EXPECT_EQ(breaks("[service]\nid = 7\n", ""), "wire 1: the number of the service is another one\n");
  const std::string topic = "topics = [{ name = \"t\", number = 300 }]\n";
  EXPECT_EQ(breaks(topic, "topics = [{ name = \"t\", number = 301 }]\n"),
            "wire 1: the topic \"t\" was 300\n");
  EXPECT_EQ(breaks(topic, ""), "wire 1: the topic \"t\" is gone, and its number is not reserved\n");
  EXPECT_EQ(breaks(topic, "reserved = [\"topic 300\"]\n"), "source 1: the topic \"t\" is gone\n");
  EXPECT_EQ(breaks(topic, "topics = [{ name = \"u\", number = 300 }]\n"),
            "source 1: \"t\" is called \"u\" now\n");
}

}  // namespace klgen
