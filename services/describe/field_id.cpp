// Field ids as text: the type word, the name space and the number.

#include "services/describe/field_id.h"

#include <array>
#include <charconv>
#include <cstdio>

#include "kl/records.h"

namespace describe {
namespace {
constexpr unsigned int kMarkBits = 0x06000000;  // may be set in an id; the short form has no place for them
constexpr unsigned int kNumberMask = 0xffff;
constexpr unsigned int kMaxSpace = 0xff;

constexpr std::array<const char*, 7> kTypeWords = {"bool", "u32", "u64", "addr6", "string", "message", "raw"};

struct Space {
  const char* word;
  unsigned int code;
};
constexpr std::array<Space, 4> kSpaces = {{{"global", 0x00}, {"local", 0xfd}, {"std", 0xfe}, {"sys", 0xff}}};

std::optional<unsigned int> parseType(std::string word) {
  unsigned int array = 0;
  if (word.ends_with("[]")) {
    array = kArrayBit;
    word.resize(word.size() - 2);
  }
  for (unsigned int i = 0; i < kTypeWords.size(); ++i)
    if (word == kTypeWords[i]) return (i << 27) | array;
  return {};
}

std::optional<unsigned int> parseSpace(const std::string& word) {
  for (const Space& space : kSpaces)
    if (word == space.word) return space.code;
  if (const auto code = parseNumber(word, kMaxSpace)) return static_cast<unsigned int>(*code);
  return {};
}

std::string spaceText(unsigned int code) {
  if (code == 0) return {};
  for (const Space& space : kSpaces)
    if (code == space.code) return std::string(space.word) + ".";
  char text[12];
  (void)std::snprintf(text, sizeof text, "0x%02x.", code);
  return text;
}

std::optional<unsigned int> parseShortForm(const std::string& text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) return {};
  const auto type = parseType(text.substr(0, colon));
  const std::string rest = text.substr(colon + 1);
  const std::size_t dot = rest.find('.');
  const auto space =
      dot == std::string::npos ? std::optional<unsigned int>(0) : parseSpace(rest.substr(0, dot));
  const auto number = parseNumber(dot == std::string::npos ? rest : rest.substr(dot + 1), kNumberMask);
  if (!type || !space || !number) return {};
  return *type | (*space << 16) | static_cast<unsigned int>(*number);
}

std::optional<unsigned int> parseWholeId(const std::string& text) {
  if (text.size() != 10 || !text.starts_with("0x")) return {};
  const auto id = parseNumber(text, 0xffffffff);
  if (!id || (*id & kl::kRecordFlag) != 0 || typeWord(static_cast<unsigned int>(*id)).empty()) return {};
  return static_cast<unsigned int>(*id);
}

}  // namespace

std::string typeWord(unsigned int id) {
  const unsigned int code = elementType(id) >> 27;
  if (code >= kTypeWords.size()) return {};
  return std::string(kTypeWords[code]) + (isArray(id) ? "[]" : "");
}

std::optional<unsigned int> parseFieldId(const std::string& text) {
  if (const auto id = parseShortForm(text)) return id;
  return parseWholeId(text);
}

std::string fieldIdText(unsigned int id) {
  if ((id & kMarkBits) == 0) {
    return typeWord(id) + ":" + spaceText((id >> 16) & kMaxSpace) + std::to_string(id & kNumberMask);
  }
  char text[12];
  (void)std::snprintf(text, sizeof text, "0x%08x", id);
  return text;
}

std::optional<unsigned long long> parseNumber(const std::string& text, unsigned long long max) {
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  const char* first = text.data() + (hex ? 2 : 0);
  const char* last = text.data() + text.size();
  unsigned long long value = 0;
  const auto [end, error] = std::from_chars(first, last, value, hex ? 16 : 10);
  if (error != std::errc() || end != last || value > max) return {};
  return value;
}

}  // namespace describe
