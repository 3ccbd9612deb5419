// toml++ parses the file; every entry is checked here.

#include "values/dictionary.h"

#include <toml++/toml.h>
#include <limits>
#include <optional>
#include <sstream>

#include "values/failure.h"
#include "values/field_id.h"

namespace klctl {
namespace {

Failure mistake(const std::filesystem::path& file, const toml::source_region& where,
                const std::string& what) {
  return usage(file.string() + ":" + std::to_string(where.begin.line) + ": " + what);
}

class DictionaryReader {
 public:
  DictionaryReader(const std::filesystem::path& file, FieldNames& names) : file_(file), names_(names) {}

  void read() {
    const toml::table root = parse();
    const toml::array* fields = root["fields"].as_array();
    if (fields == nullptr) throw mistake(file_, root.source(), "expected a list 'fields = [ ... ]'");
    for (const toml::node& entry : *fields) readEntry(entry);
  }

 private:
  toml::table parse() const {
    try {
      return toml::parse_file(file_.string());
    } catch (const toml::parse_error& error) {
      throw mistake(file_, error.source(), std::string(error.description()));
    }
  }

  void readEntry(const toml::node& node) {
    const toml::table* entry = node.as_table();
    if (entry == nullptr)
      throw mistake(file_, node.source(), "expected { name = \"...\", field = \"TYPE:NUMBER\" }");
    const auto name = textOf(*entry, "name");
    const auto field = textOf(*entry, "field");
    const auto id = parseFieldId(field);
    if (!id)
      throw mistake(file_, node.source(),
                    "expected a field like \"u32:5\" or \"string[]:std.9\", not \"" + field + "\"");
    names_.add(name, *id);
    if (const toml::node* values = entry->get("values")) readValues(*id, *values);
  }

  std::string textOf(const toml::table& entry, const char* key) const {
    const auto text = entry[key].value<std::string>();
    if (text && !text->empty()) return *text;
    throw mistake(file_, entry.source(), std::string("expected ") + key + " = \"...\"");
  }

  void readValues(unsigned int id, const toml::node& node) {
    const toml::table* values = node.as_table();
    if (values == nullptr || elementType(id) != kU32) {
      throw mistake(file_, node.source(), "expected values = { word = number, ... } of a u32 field");
    }
    for (const auto& [word, number] : *values) {
      const auto value = number.value<std::int64_t>();
      if (!value || *value < 0 || *value > std::numeric_limits<unsigned int>::max()) {
        throw mistake(file_, number.source(), "expected a number from 0 to 4294967295");
      }
      names_.addValue(id, std::string(word.str()), static_cast<unsigned int>(*value));
    }
  }

  const std::filesystem::path& file_;
  FieldNames& names_;
};

bool isPlainName(const std::string& service) {
  return !service.empty() && service.front() != '.' && service.find('/') == std::string::npos;
}

}  // namespace

std::filesystem::path dictionaryFolder() {
  std::error_code ignored;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", ignored);
  return (program.parent_path() / KLCTL_FIELDS_FROM_PROGRAM).lexically_normal();
}

FieldNames namesFor(const std::string& service, const std::filesystem::path& folder) {
  FieldNames names;
  const std::filesystem::path file = folder / (service + ".toml");
  std::error_code ignored;
  if (isPlainName(service) && std::filesystem::exists(file, ignored)) DictionaryReader(file, names).read();
  return names;
}

}  // namespace klctl
