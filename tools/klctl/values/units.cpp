// A unit is a word behind a factor, which is 1 where none is written.  Words of one kind are measured in the smallest of
// them.

#include "values/units.h"

#include <array>
#include <cstdio>

#include "values/field_id.h"

namespace klctl {
namespace {

using Number = unsigned long long;

constexpr Number kMostNumber = ~0ull;
constexpr char kFraction[] = "1/";

constexpr Number kSecondMs = 1000;
constexpr Number kMinuteMs = 60 * kSecondMs;
constexpr Number kHourMs = 60 * kMinuteMs;

enum class Kind { kTime, kMemory };

struct UnitWord {
  const char* word;
  Kind kind;
  Number size;
};

constexpr std::array<UnitWord, 12> kUnitWords = {{
    {"ns", Kind::kTime, 1},
    {"us", Kind::kTime, 1'000},
    {"ms", Kind::kTime, 1'000'000},
    {"s", Kind::kTime, 1'000'000'000},
    {"min", Kind::kTime, 60'000'000'000},
    {"h", Kind::kTime, 3'600'000'000'000},
    {"d", Kind::kTime, 86'400'000'000'000},
    {"B", Kind::kMemory, 1},
    {"bytes", Kind::kMemory, 1},
    {"KiB", Kind::kMemory, 1ull << 10},
    {"MiB", Kind::kMemory, 1ull << 20},
    {"GiB", Kind::kMemory, 1ull << 30},
}};

const UnitWord* findUnitWord(const std::string& text) {
  for (const UnitWord& word : kUnitWords)
    if (text == word.word) return &word;
  return nullptr;
}

bool isFraction(const std::string& unit) { return unit.starts_with(kFraction); }

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The digits in front, and the word behind them and behind blanks.
struct Quantity {
  Number number;
  std::string word;
};

std::optional<Quantity> split(const std::string& text) {
  std::size_t end = 0;
  while (end < text.size() && isDigit(text[end])) ++end;
  const auto number = parseNumber(text.substr(0, end), kMostNumber);
  if (!number) return {};
  while (end < text.size() && text[end] == ' ') ++end;
  return Quantity{*number, text.substr(end)};
}

// The size of one `unit` in the smallest unit of the kind; nothing for another kind.
std::optional<Number> sizeOf(const std::string& unit, Kind kind) {
  const Quantity factor = split(unit).value_or(Quantity{1, unit});
  const UnitWord* const word = findUnitWord(factor.word);
  Number size = 0;
  if (word == nullptr || word->kind != kind || factor.number == 0) return {};
  if (__builtin_mul_overflow(factor.number, word->size, &size)) return {};
  return size;
}

std::optional<Number> converted(const Quantity& quantity, const std::string& unit) {
  if (quantity.word == unit || quantity.word == "x " + unit) return quantity.number;
  if (isFraction(unit) && quantity.word == unit.substr(1)) return quantity.number;
  const UnitWord* const word = findUnitWord(quantity.word);
  const auto size = word != nullptr ? sizeOf(unit, word->kind) : std::nullopt;
  Number whole = 0;
  if (!size || __builtin_mul_overflow(quantity.number, word->size, &whole)) return {};
  if (whole % *size != 0) return {};
  return whole / *size;
}

}  // namespace

std::string withUnit(const std::string& number, const std::string& unit) {
  if (unit.empty()) return number;
  if (isFraction(unit)) return number + unit.substr(1);
  return number + (isDigit(unit.front()) ? " x " : " ") + unit;
}

std::string ageText(unsigned long long milliseconds) {
  char text[32];
  if (milliseconds < kSecondMs) (void)std::snprintf(text, sizeof text, "%llu ms", milliseconds);
  else if (milliseconds < kMinuteMs)
    (void)std::snprintf(text, sizeof text, "%llu.%llu s", milliseconds / kSecondMs,
                        milliseconds % kSecondMs / 100);
  else if (milliseconds < kHourMs)
    (void)std::snprintf(text, sizeof text, "%llu min", milliseconds / kMinuteMs);
  else (void)std::snprintf(text, sizeof text, "%llu h", milliseconds / kHourMs);
  return text;
}

bool saysUnit(const std::string& name, const std::string& unit) {
  return ("_" + name + "_").find("_" + unit + "_") != std::string::npos;
}

std::optional<unsigned long long> parseQuantity(const std::string& text, const std::string& unit,
                                                unsigned long long most) {
  const auto quantity = unit.empty() ? std::nullopt : split(text);
  const auto number = quantity ? converted(*quantity, unit) : std::nullopt;
  return number && *number <= most ? number : std::nullopt;
}

}  // namespace klctl
