// The bits of a field id give the form of its value: the kind of one element and whether there is a list of them.
// One function reads an element of each kind from TOML; readSingle and readArray put what they read into a message.

#include "config/settings.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstring>
#include <optional>
#include <set>

#include "kl/message.h"
#include "kl/records.h"
#include "services/describe/check.h"
#include "services/describe/field_id.h"

namespace loader {
namespace {

using kl::RecordKind;

constexpr unsigned int kHighestKind = 6;
constexpr std::size_t kMaxNestedBytes = 0xffff;  // lengths travel in 16 bits

RecordKind kindOf(unsigned int id) { return static_cast<RecordKind>(id >> 27 & 15); }

// "0x08000007" as a field id; none when it is no such text or the id has no type.
std::optional<unsigned int> fieldIdOf(std::string_view key) {
  if (!key.starts_with("0x")) return {};
  unsigned int id = 0;
  const auto [end, error] = std::from_chars(key.data() + 2, key.data() + key.size(), id, 16);
  if (error != std::errc() || end != key.data() + key.size()) return {};
  if ((id >> 27 & 15) > kHighestKind || (id & kl::kRecordFlag) != 0 || id >= 0xfffffffe) return {};
  return id;
}

const char* expectedFor(RecordKind kind) {
  switch (kind) {
    case RecordKind::kBool: return "true or false";
    case RecordKind::kU32: return "a number from 0 to 4294967295";
    case RecordKind::kU64: return "a number from 0 to 9223372036854775807";
    case RecordKind::kAddr6: return "an IPv6 address as text";
    case RecordKind::kString: return "a text of at most 65535 bytes";
    case RecordKind::kMessage: return "a table of field ids and values, at most 65535 bytes together";
    case RecordKind::kRaw: return "a text of hexadecimal digits, two for each of at most 65535 bytes";
  }
  return "";
}

class SettingsReader {
 public:
  SettingsReader(common::Section& section, ServiceNames& names) : section_(section), names_(names) {}

  kl::message readTable(const toml::table& table) { return readTable(table, false); }

 private:
  kl::message readTable(const toml::table& table, bool isInside) {
    kl::message result;
    std::set<unsigned int> given;
    for (const auto& [key, value] : table) {
      const std::string name(key.str());
      if (const auto id = fieldIdOf(name)) {
        given.insert(*id);
        if (!readValue(result, *id, value)) section_.expected(value, name, expectation(*id));
      } else if (const describe::Field* field = findName(name, isInside)) {
        if (!given.insert(field->id).second)
          section_.expected(value, name, "each setting once, by its name or by its field id");
        else if (!readNamed(result, *field, value)) section_.expected(value, name, expectation(*field));
      } else {
        section_.expected(value, name, "a key that is a field id, like 0x08000007" + hint(name, isInside));
      }
    }
    return result;
  }

  const describe::Field* findName(const std::string& name, bool isInside) {
    if (!describe::isName(name)) return nullptr;
    return isInside ? names_.findField(name) : names_.findSetting(name);
  }

  std::string hint(const std::string& name, bool isInside) {
    if (!describe::isName(name) || !names_.mayHaveNames()) return "";
    return ", or a name (" + (isInside ? names_.fieldsThereAre() : names_.settingsThereAre()) + ")";
  }

  // A word for the value, or the value within its bounds.
  bool readNamed(kl::message& m, const describe::Field& field, const toml::node& node) {
    const auto word = node.value_exact<std::string>();
    for (const describe::Value& value : field.values) {
      if (word != value.word || describe::isArray(field.id)) continue;
      m.insert_u32(field.id, value.number);
      return true;
    }
    return isWithin(field, node) && readValue(m, field.id, node);
  }

  // The bounds are those of a number's value, and of the length of a text, of bytes and of a list.
  static bool isWithin(const describe::Field& field, const toml::node& node) {
    std::uint64_t measure = 0;
    if (const toml::array* list = node.as_array()) measure = list->size();
    else if (const auto text = node.value_exact<std::string>())
      measure = kindOf(field.id) == RecordKind::kRaw ? text->size() / 2 : text->size();
    else if (const auto number = node.value_exact<int64_t>(); number && *number >= 0)
      measure = static_cast<std::uint64_t>(*number);
    else return true;  // of another kind, which is refused anyway
    return measure >= field.min.value_or(0) && (!field.max || measure <= *field.max);
  }

  static std::string expectation(const describe::Field& field) {
    std::string text = expectation(field.id);
    if (field.min || field.max) {
      text += ", at least " + std::to_string(field.min.value_or(0));
      if (field.max) text += " and at most " + std::to_string(*field.max);
    }
    for (const describe::Value& value : field.values) text += ", or \"" + value.word + "\"";
    return text;
  }

  bool readValue(kl::message& m, unsigned int id, const toml::node& node) {
    return describe::isArray(id) ? readArray(m, id, node) : readSingle(m, id, node);
  }

  static std::string expectation(unsigned int id) {
    const std::string one = expectedFor(kindOf(id));
    return describe::isArray(id) ? "a list, each of its elements " + one : one;
  }

  bool readSingle(kl::message& m, unsigned int id, const toml::node& node) {
    switch (kindOf(id)) {
      case RecordKind::kBool: return store(boolean(node), [&](bool v) { m.insert_bool(id, v); });
      case RecordKind::kU32: return store(u32(node), [&](unsigned int v) { m.insert_u32(id, v); });
      case RecordKind::kU64: return store(u64(node), [&](unsigned long long v) { m.insert_u64(id, v); });
      case RecordKind::kAddr6: return store(addr6(node), [&](const auto& v) { m.insert_addr6(id, v); });
      case RecordKind::kString: return store(text(node), [&](const auto& v) { m.insert_string(id, v); });
      case RecordKind::kMessage: return store(nested(node), [&](const auto& v) { m.insert_message(id, v); });
      case RecordKind::kRaw: return store(raw(node), [&](const auto& v) { m.insert_raw(id, v); });
    }
    return false;
  }

  bool readArray(kl::message& m, unsigned int id, const toml::node& node) {
    const toml::array* list = node.as_array();
    if (list == nullptr) return false;
    switch (kindOf(id)) {
      case RecordKind::kBool:
        return store(each<bool>(*list, &SettingsReader::boolean),
                     [&](const auto& v) { m.insert_bool_array(id, v); });
      case RecordKind::kU32:
        return store(each<unsigned int>(*list, &SettingsReader::u32),
                     [&](const auto& v) { m.insert_u32_array(id, v); });
      case RecordKind::kU64:
        return store(each<unsigned long long>(*list, &SettingsReader::u64),
                     [&](const auto& v) { m.insert_u64_array(id, v); });
      case RecordKind::kAddr6:
        return store(each<kl::IPAddr6>(*list, &SettingsReader::addr6),
                     [&](const auto& v) { m.insert_addr6_array(id, v); });
      case RecordKind::kString:
        return store(each<std::string>(*list, &SettingsReader::text),
                     [&](const auto& v) { m.insert_string_array(id, v); });
      case RecordKind::kMessage:
        return store(each<kl::message::flat_message>(*list, &SettingsReader::nested),
                     [&](const auto& v) { m.insert_message_array(id, v); });
      case RecordKind::kRaw:
        return store(each<std::vector<unsigned char>>(*list, &SettingsReader::raw),
                     [&](const auto& v) { m.insert_raw_array(id, v); });
    }
    return false;
  }

  template <class T, class Insert>
  static bool store(const std::optional<T>& value, Insert insert) {
    if (value) insert(*value);
    return value.has_value();
  }

  template <class T>
  std::optional<std::vector<T>> each(const toml::array& list,
                                     std::optional<T> (SettingsReader::*read)(const toml::node&)) {
    std::vector<T> result;
    for (const toml::node& node : list) {
      const std::optional<T> value = (this->*read)(node);
      if (!value || result.size() == 0xffff) return {};
      result.push_back(*value);
    }
    return result;
  }

  std::optional<bool> boolean(const toml::node& node) { return node.value_exact<bool>(); }

  std::optional<unsigned int> u32(const toml::node& node) {
    const auto value = node.value_exact<int64_t>();
    if (!value || *value < 0 || *value > 0xffffffff) return {};
    return static_cast<unsigned int>(*value);
  }

  std::optional<unsigned long long> u64(const toml::node& node) {
    const auto value = node.value_exact<int64_t>();
    if (!value || *value < 0) return {};
    return static_cast<unsigned long long>(*value);
  }

  std::optional<std::string> text(const toml::node& node) {
    auto value = node.value_exact<std::string>();
    if (!value || value->size() > 0xffff) return {};
    return value;
  }

  std::optional<kl::IPAddr6> addr6(const toml::node& node) {
    const auto value = node.value_exact<std::string>();
    unsigned char octets[16];
    if (!value || ::inet_pton(AF_INET6, value->c_str(), octets) != 1) return {};
    kl::IPAddr6 address;
    static_assert(sizeof address == sizeof octets, "an address is its 16 bytes");
    std::memcpy(static_cast<void*>(&address), octets, sizeof octets);
    return address;
  }

  std::optional<std::vector<unsigned char>> raw(const toml::node& node) {
    const auto digits = node.value_exact<std::string>();
    if (!digits || digits->size() % 2 != 0 || digits->size() > 2 * 0xffff) return {};
    std::vector<unsigned char> result(digits->size() / 2);
    for (std::size_t i = 0; i < result.size(); ++i) {
      const char* at = digits->data() + 2 * i;
      if (std::from_chars(at, at + 2, result[i], 16).ptr != at + 2) return {};
    }
    return result;
  }

  std::optional<kl::message::flat_message> nested(const toml::node& node) {
    const toml::table* table = node.as_table();
    if (table == nullptr) return {};
    kl::message::flat_message flat = readTable(*table, true).flattened();
    if (flat.size() > kMaxNestedBytes) return {};
    return flat;
  }

  common::Section& section_;
  ServiceNames& names_;
};

}  // namespace

std::vector<unsigned char> readSettings(common::Section& section, const toml::node& settings,
                                        ServiceNames names) {
  const toml::table* table = settings.as_table();
  if (table == nullptr) {
    section.expected(settings, "settings", "a table of field ids and values");
    return {};
  }
  std::vector<unsigned char> flat = SettingsReader(section, names).readTable(*table).flattened();
  if (flat.size() > kMaxNestedBytes) section.mistake("expected settings of at most 65535 bytes together");
  return flat;
}

}  // namespace loader
