#include "services/common/text.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace common {
namespace {

std::string escaped(std::string_view bytes) {
  std::string result;
  char code[8];
  for (const char c : bytes) {
    (void)std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(c));
    result += code;
  }
  return result;
}

std::string utf8(char32_t code) {
  const auto byte = [](char32_t bits) { return static_cast<char>(bits); };
  if (code < 0x80) return {byte(code)};
  if (code < 0x800) return {byte(0xc0 | code >> 6), byte(0x80 | (code & 0x3f))};
  if (code < 0x10000)
    return {byte(0xe0 | code >> 12), byte(0x80 | (code >> 6 & 0x3f)), byte(0x80 | (code & 0x3f))};
  return {byte(0xf0 | code >> 18), byte(0x80 | (code >> 12 & 0x3f)), byte(0x80 | (code >> 6 & 0x3f)),
          byte(0x80 | (code & 0x3f))};
}

unsigned int digit(char c) { return static_cast<unsigned int>(c <= '9' ? c - '0' : c - 'a' + 10); }

// The text that was escaped.
std::string original(const std::string& text) {
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\\') result += text[at];
    else if (text[++at] == '\\') result += '\\';
    else {
      result += static_cast<char>(digit(text[at + 1]) * 16 + digit(text[at + 2]));
      at += 2;
    }
  }
  return result;
}

TEST(Printable, OrdinaryTextStays) {
  const std::string text = "eth0 is down: 100% ~ \"quoted\" `x` ü € 日本 \xf0\x9f\x90\xa7";
  EXPECT_EQ(printable(text), text);
  EXPECT_EQ(printable(""), "");
}

TEST(Printable, EveryByteByItself) {
  for (unsigned int b = 0; b < 256; ++b) {
    const std::string text(1, static_cast<char>(b));
    const bool isPlain = b >= 0x20 && b < 0x7f;
    EXPECT_EQ(printable(text), b == '\\' ? "\\\\" : isPlain ? text : escaped(text)) << b;
  }
}

TEST(Printable, AnEscapeSequenceReachesNoTerminal) {
  EXPECT_EQ(printable("a\x1b[31mb\x1b]0;title\x07"), "a\\x1b[31mb\\x1b]0;title\\x07");
}

TEST(Printable, ControlCharactersOfTheSecondSetAreEscapedInUtf8AndRaw) {
  for (char32_t code = 0x80; code <= 0x9f; ++code) {
    EXPECT_EQ(printable("<" + utf8(code) + ">"), "<" + escaped(utf8(code)) + ">");
    const std::string raw(1, static_cast<char>(code));
    EXPECT_EQ(printable("<" + raw + ">"), "<" + escaped(raw) + ">");
  }
  EXPECT_EQ(printable("\xc2\x9b\x33\x31m"), "\\xc2\\x9b31m");
  EXPECT_EQ(printable(utf8(0xa0)), utf8(0xa0));
}

TEST(Printable, WhatTurnsTheDirectionOfReadingIsEscaped) {
  for (const char32_t code :
       {0x061c, 0x200e, 0x200f, 0x202a, 0x202b, 0x202c, 0x202d, 0x202e, 0x2066, 0x2067, 0x2068, 0x2069})
    EXPECT_EQ(printable("a" + utf8(code) + "b"), "a" + escaped(utf8(code)) + "b");
  for (const char32_t code : {0x061b, 0x061d, 0x200d, 0x2010, 0x202f, 0x2065, 0x206a})
    EXPECT_EQ(printable("a" + utf8(code) + "b"), "a" + utf8(code) + "b");
}

TEST(Printable, NothingBeginsAnotherLine) {
  EXPECT_EQ(printable("a\nb\rc"), "a\\x0ab\\x0dc");
  EXPECT_EQ(printable(utf8(0x2028) + utf8(0x2029)), "\\xe2\\x80\\xa8\\xe2\\x80\\xa9");
}

TEST(Printable, ANewlineStaysWhereTheCallerAllowsIt) {
  EXPECT_EQ(printable("a\nb\rc\\", Newline::kKept), "a\nb\\x0dc\\\\");
}

TEST(Printable, BytesThatAreNoUtf8AreEscapedOneByOne) {
  EXPECT_EQ(printable("\xff\xfe"), "\\xff\\xfe");
  EXPECT_EQ(printable("\xc3"), "\\xc3");  // cut short
  EXPECT_EQ(printable("\xe2\x82"), "\\xe2\\x82");
  EXPECT_EQ(printable("\xe2\x82"
                      "a"),
            "\\xe2\\x82"
            "a");  // what follows is read again
  EXPECT_EQ(printable("\xc3\xc3\xbc"), "\\xc3\xc3\xbc");
  EXPECT_EQ(printable("\xc0\x8a\xc1\xbf"), "\\xc0\\x8a\\xc1\\xbf");  // overlong
  EXPECT_EQ(printable("\xe0\x80\x8a"), "\\xe0\\x80\\x8a");
  EXPECT_EQ(printable("\xf0\x80\x80\x9b"), "\\xf0\\x80\\x80\\x9b");
  EXPECT_EQ(printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");           // a surrogate
  EXPECT_EQ(printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // above U+10FFFF
  EXPECT_EQ(printable("\xf8\x88\x80\x80\x80"), "\\xf8\\x88\\x80\\x80\\x80");
  EXPECT_EQ(printable(utf8(0x10ffff)), utf8(0x10ffff));
}

TEST(Printable, ABackslashCannotPretendToBeAnEscape) {
  EXPECT_EQ(printable("\\x1b"), "\\\\x1b");
  EXPECT_NE(printable("\\x1b"), printable("\x1b"));
}

TEST(Printable, EveryTextCanBeHadBackFromItsResult) {
  for (unsigned int first = 0; first < 256; ++first)
    for (unsigned int second = 0; second < 256; ++second) {
      const std::string text = {static_cast<char>(first), static_cast<char>(second), 'x'};
      ASSERT_EQ(original(printable(text)), text) << first << ' ' << second;
    }
  for (char32_t code = 0; code <= 0x10ffff; code += 7) {
    if (code >= 0xd800 && code <= 0xdfff) continue;
    const std::string text = "\\" + utf8(code) + "\xff";
    ASSERT_EQ(original(printable(text)), text) << static_cast<unsigned int>(code);
  }
}

}  // namespace
}  // namespace common
