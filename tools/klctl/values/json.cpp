// Messages to JSON by a walk over their records, JSON to messages member by member.
//
// Both directions treat the seven types alike: one function writes or reads a single value, and an array applies it to
// each element.

#include "values/json.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <limits>
#include <set>
#include <type_traits>

#include "kl/address.h"
#include "kl/records.h"
#include "values/failure.h"
#include "values/field_id.h"
#include "values/similar.h"
#include "values/units.h"

namespace klctl {
namespace {
constexpr unsigned int kMaxU32 = std::numeric_limits<unsigned int>::max();
constexpr unsigned long long kMaxU64 = std::numeric_limits<unsigned long long>::max();
constexpr char kSecretMark[] = "(secret)";
constexpr int kDeepest = 64;  // of objects in objects, on the way in and on the way out

using Raw = std::vector<unsigned char>;
using Flat = kl::message::flat_message;

// --- out -------------------------------------------------------------------------------------------------

class Writer {
 public:
  explicit Writer(const FieldNames& names) : names_(names) {}

  Json object(const kl::message& m, int depth) const {
    Json result = Json::object();
    for (const unsigned int id : idsOf(m)) {
      if (!names_.isHidden(id)) result[names_.nameOf(id)] = value(m, id, depth);
      else if (names_.isMarked(id)) result[names_.nameOf(id)] = kSecretMark;
    }
    return result;
  }

 private:
  std::vector<unsigned int> idsOf(const kl::message& m) const {
    const Raw bytes = m.flattened();
    std::set<unsigned int> met;
    kl::RecordWalk walk(bytes);
    for (kl::Record record; walk.next(record);) met.insert(record.id());
    std::vector<unsigned int> ids(met.begin(), met.end());
    names_.sort(ids);
    return ids;
  }

  Json value(const kl::message& m, unsigned int id, int depth) const {
    if (isArray(id)) return arrayValue(m, id, depth);
    switch (elementType(id)) {
      case kBool: return m.get_bool(id, false);
      case kU32: return u32(id, m.get_u32(id, 0));
      case kU64: return m.get_u64(id, 0);
      case kAddr6: return text(m.get_addr6(id));
      case kString: return m.get_string(id, {});
      case kMessage: return nested(m.get_message(id, {}), depth);
      case kRaw: return rawText(m.get_raw(id, {}));
    }
    return {};
  }

  Json arrayValue(const kl::message& m, unsigned int id, int depth) const {
    switch (elementType(id)) {
      case kBool: return array(m.get_bool_array(id), [](bool v) { return v; });
      case kU32: return array(m.get_u32_array(id), [&](unsigned int v) { return u32(id, v); });
      case kU64: return array(m.get_u64_array(id), [](unsigned long long v) { return v; });
      case kAddr6: return array(m.get_addr6_array(id), text);
      case kString: return array(m.get_string_array(id), [](const std::string& v) { return v; });
      case kMessage: return array(m.get_message_array(id), [&](const Flat& v) { return nested(v, depth); });
      case kRaw: return array(m.get_raw_array(id), rawText);
    }
    return {};
  }

  template <class Vector, class Render>
  static Json array(const Vector& values, Render render) {
    Json result = Json::array();
    for (const auto& value : values) result.push_back(render(value));
    return result;
  }

  Json u32(unsigned int id, unsigned int value) const {
    if (const auto word = names_.valueWord(id, value)) return *word;
    return value;
  }

  Json nested(const Flat& bytes, int depth) const {
    if (depth == kDeepest) return rawText(bytes);
    return object(kl::message(bytes), depth + 1);
  }

  static std::string text(const kl::IPAddr6& address) { return kl::addressText(address); }

  const FieldNames& names_;
};

// --- in --------------------------------------------------------------------------------------------------

class Reader {
 public:
  explicit Reader(const FieldNames& names) : names_(names) {}

  kl::message object(const Json& object, int depth) const {
    if (!object.is_object()) throw usage("a message is written as a JSON object, {\"field\": value, ...}");
    if (depth > kDeepest) throw usage("messages are nested too deep");
    kl::message m;
    for (const auto& [name, value] : object.items()) {
      const auto id = names_.find(name);
      if (!id) throw usage("there is no field '" + name + "'" + didYouMean(name, names_.words()));
      insert(m, *id, value, depth);
    }
    return m;
  }

  void insert(kl::message& m, unsigned int id, const Json& value, int depth) const {
    if (isArray(id)) return insertArray(m, id, value, depth);
    switch (elementType(id)) {
      case kBool: return m.insert_bool(id, boolean(id, value));
      case kU32: return m.insert_u32(id, u32(id, value));
      case kU64: return m.insert_u64(id, number(id, value, kMaxU64));
      case kAddr6: return m.insert_addr6(id, address(id, value));
      case kString: return m.insert_string(id, string(id, value));
      case kMessage: return m.insert_message(id, nested(value, depth));
      case kRaw: return m.insert_raw(id, raw(id, value));
    }
  }

 private:
  void insertArray(kl::message& m, unsigned int id, const Json& value, int depth) const {
    if (!value.is_array()) throw cannotHold(id, "a list of values", value);
    switch (elementType(id)) {
      case kBool:
        return m.insert_bool_array(id, elements(value, [&](const Json& v) { return boolean(id, v); }));
      case kU32: return m.insert_u32_array(id, elements(value, [&](const Json& v) { return u32(id, v); }));
      case kU64:
        return m.insert_u64_array(id, elements(value, [&](const Json& v) { return number(id, v, kMaxU64); }));
      case kAddr6:
        return m.insert_addr6_array(id, elements(value, [&](const Json& v) { return address(id, v); }));
      case kString:
        return m.insert_string_array(id, elements(value, [&](const Json& v) { return string(id, v); }));
      case kMessage:
        return m.insert_message_array(id, elements(value, [&](const Json& v) { return nested(v, depth); }));
      case kRaw: return m.insert_raw_array(id, elements(value, [&](const Json& v) { return raw(id, v); }));
    }
  }

  template <class Read>
  static std::vector<std::invoke_result_t<Read, const Json&>> elements(const Json& array, Read read) {
    std::vector<std::invoke_result_t<Read, const Json&>> values;
    for (const Json& element : array) values.push_back(read(element));
    return values;
  }

  bool boolean(unsigned int id, const Json& value) const {
    if (value.is_boolean()) return value.get<bool>();
    if (value == "true" || value == "1") return true;
    if (value == "false" || value == "0") return false;
    throw cannotHold(id, "true or false", value);
  }

  unsigned int u32(unsigned int id, const Json& value) const {
    if (value.is_string())
      if (const auto known = names_.findValue(id, value.get<std::string>())) return *known;
    return static_cast<unsigned int>(number(id, value, kMaxU32));
  }

  unsigned long long number(unsigned int id, const Json& value, unsigned long long max) const {
    std::optional<unsigned long long> result;
    if (value.is_number_unsigned()) result = value.get<unsigned long long>();
    if (value.is_string()) result = parseNumber(value.get<std::string>(), max);
    if (!result && value.is_string())
      result = parseQuantity(value.get<std::string>(), names_.unitOf(id), max);
    if (!result || *result > max) throw cannotHold(id, expectedNumber(id, max), value);
    return *result;
  }

  // "busy, idle or a whole number from 0 to 10 in bytes".
  std::string expectedNumber(unsigned int id, unsigned long long max) const {
    std::string expected;
    for (const std::string& word : names_.valueWords(id)) expected += (expected.empty() ? "" : ", ") + word;
    if (!expected.empty()) expected += " or ";
    const std::string unit = names_.unitOf(id);
    return expected + "a whole number from 0 to " + std::to_string(max) + (unit.empty() ? "" : " in " + unit);
  }

  // A secret is not repeated.
  Failure cannotHold(unsigned int id, const std::string& expected, const Json& value) const {
    std::string shown = value.dump(-1, ' ', false, Json::error_handler_t::replace);
    if (shown.size() > 60) shown = shown.substr(0, 60) + "...";
    if (names_.isHidden(id)) shown = "what was given";
    return usage(names_.nameOf(id) + " is of the type " + typeWord(id) + " and takes " + expected + ", not " +
                 shown);
  }

  kl::IPAddr6 address(unsigned int id, const Json& value) const {
    const auto result = value.is_string() ? kl::parseAddress(value.get<std::string>()) : std::nullopt;
    if (!result) throw cannotHold(id, "an IP address", value);
    return *result;
  }

  std::string string(unsigned int id, const Json& value) const {
    if (value.is_string()) return value.get<std::string>();
    throw cannotHold(id, "text", value);
  }

  Flat nested(const Json& value, int depth) const { return object(value, depth + 1).flattened(); }

  Raw raw(unsigned int id, const Json& value) const {
    Raw bytes;
    if (value.is_string() && readHex(value.get<std::string>(), bytes)) return bytes;
    throw cannotHold(id, "bytes as pairs of hexadecimal digits (02:fc:00)", value);
  }

  // Pairs of digits, with or without colons between them.
  static bool readHex(const std::string& text, Raw& bytes) {
    for (std::size_t i = 0; i < text.size(); i += 2) {
      if (text[i] == ':' && i != 0) ++i;
      if (i + 2 > text.size()) return false;
      const auto byte = parseNumber("0x" + text.substr(i, 2), 0xff);
      if (!byte) return false;
      bytes.push_back(static_cast<unsigned char>(*byte));
    }
    return true;
  }

  const FieldNames& names_;
};

}  // namespace

Json toJson(const kl::message& m, const FieldNames& names) { return Writer(names).object(m, 0); }

kl::message messageFrom(const Json& object, const FieldNames& names) {
  return Reader(names).object(object, 0);
}

void insertJson(kl::message& m, unsigned int id, const Json& value, const FieldNames& names) {
  Reader(names).insert(m, id, value, 0);
}

std::string rawText(const std::vector<unsigned char>& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 3);
  for (const unsigned char byte : bytes) {
    if (!text.empty()) text += ':';
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

}  // namespace klctl
