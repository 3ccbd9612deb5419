// Every value is read through find(), which remembers what was asked for.  A mistake stands at the line of the value, a
// key too many at its own.

#include "services/common/section.h"

#include <algorithm>

namespace common {
namespace {

const toml::table kNoTable;

std::string kindOf(const toml::node& node) {
  switch (node.type()) {
    case toml::node_type::table: return "a table";
    case toml::node_type::array: return "an array";
    case toml::node_type::string: return "\"" + node.ref<std::string>() + "\"";
    case toml::node_type::integer: return std::to_string(node.ref<int64_t>());
    case toml::node_type::floating_point: return "a number with a fraction";
    case toml::node_type::boolean: return node.ref<bool>() ? "true" : "false";
    default: return "a date or a time";
  }
}

}  // namespace

std::optional<toml::table> parseToml(const std::string& text, const std::string& file, Mistakes& mistakes) {
  try {
    return toml::parse(text, file);
  } catch (const toml::parse_error& error) {
    mistakes.push_back(
        {file, error.source().begin.line, "expected TOML: " + std::string(error.description())});
    return {};
  }
}

Section Section::table(const std::string& key) {
  const toml::node* node = find(key);
  if (node != nullptr && !node->is_table()) expected(*node, key, "a table");
  const bool isTable = node != nullptr && node->is_table();
  return Section(isTable ? *node->as_table() : kNoTable, key, file_, mistakes_);
}

std::vector<Section> Section::tables(const std::string& key, const std::string& what) {
  const toml::node* node = find(key);
  if (node == nullptr) return {};
  const toml::array* list = node->as_array();
  if (list == nullptr || !list->is_homogeneous(toml::node_type::table)) {
    expected(*node, key, what);
    return {};
  }
  std::vector<Section> result;
  for (const toml::node& entry : *list) result.emplace_back(*entry.as_table(), key, file_, mistakes_);
  return result;
}

const toml::node* Section::find(const std::string& key) {
  known_.insert(key);
  return table_.get(key);
}

std::vector<std::string> Section::keys() const {
  std::vector<std::string> result;
  for (const auto& [key, value] : table_) result.emplace_back(key.str());
  return result;
}

std::string Section::text(const std::string& key, const std::string& otherwise) {
  const toml::node* node = find(key);
  if (node == nullptr) return otherwise;
  if (const auto value = node->value_exact<std::string>(); value && !value->empty()) return *value;
  expected(*node, key, "a text");
  return otherwise;
}

bool Section::boolean(const std::string& key, bool otherwise) {
  const toml::node* node = find(key);
  if (node == nullptr) return otherwise;
  if (const auto value = node->value_exact<bool>()) return *value;
  expected(*node, key, "true or false");
  return otherwise;
}

unsigned int Section::choice(const std::string& key, const std::vector<std::string>& words) {
  const toml::node* node = find(key);
  if (node == nullptr) return 0;
  const auto found = std::find(words.begin(), words.end(), node->value_exact<std::string>().value_or(""));
  if (found != words.end()) return static_cast<unsigned int>(found - words.begin());
  std::string list;
  for (const std::string& word : words) list += (list.empty() ? "\"" : " or \"") + word + "\"";
  expected(*node, key, list);
  return 0;
}

std::vector<std::string> Section::texts(const std::string& key, const std::string& what) {
  const toml::node* node = find(key);
  if (node == nullptr) return {};
  const toml::array* list = node->as_array();
  if (list == nullptr || list->empty() || !list->is_homogeneous(toml::node_type::string)) {
    expected(*node, key, what);
    return {};
  }
  std::vector<std::string> result;
  for (const toml::node& entry : *list) result.push_back(entry.ref<std::string>());
  return result;
}

std::map<std::string, std::string> Section::textTable(const std::string& key) {
  Section inner = table(key);
  std::map<std::string, std::string> result;
  for (const std::string& name : inner.keys()) {
    const toml::node* node = inner.find(name);
    if (const auto value = node->value_exact<std::string>()) result[name] = *value;
    else inner.expected(*node, name, "a text");
  }
  return result;
}

std::vector<std::string> Section::words(const std::string& key) {
  const toml::node* node = find(key);
  if (node == nullptr) return {};
  const toml::array* list = node->as_array();
  if (list == nullptr) {
    expected(*node, key, "a list of names and numbers");
    return {};
  }
  std::vector<std::string> result;
  for (const toml::node& entry : *list) {
    if (const auto number = entry.value_exact<int64_t>()) result.push_back(std::to_string(*number));
    else if (const auto word = entry.value_exact<std::string>()) result.push_back(*word);
    else expected(entry, key, "a list of names and numbers");
  }
  return result;
}

void Section::expected(const toml::node& node, const std::string& key, const std::string& what) {
  mistakes_.push_back(
      {file_, node.source().begin.line, labelOf(key) + ": expected " + what + ", found " + kindOf(node)});
}

void Section::expected(const std::string& key, const std::string& what) {
  if (const toml::node* node = find(key)) return expected(*node, key, what);
  mistake(key, "expected " + what);
}

void Section::mistake(const std::string& key, const std::string& text) {
  const toml::node* node = table_.get(key);
  const toml::source_region& where = node != nullptr ? node->source() : table_.source();
  mistakes_.push_back({file_, where.begin.line, labelOf(key) + ": " + text});
}

void Section::refuseOthers() {
  std::string choices;
  for (const std::string& key : known_) choices += (choices.empty() ? "" : ", ") + key;
  for (const auto& [key, value] : table_) {
    const std::string name(key.str());
    if (known_.contains(name)) continue;
    mistakes_.push_back(
        {file_, key.source().begin.line, labelOf(name) + ": expected one of the keys " + choices});
  }
}

unsigned int Section::lineOf(const std::string& key) const {
  const auto found = table_.find(key);
  return found == table_.end() ? table_.source().begin.line : found->first.source().begin.line;
}

long long Section::numberOr(const std::string& key, long long otherwise, long long least, long long most) {
  const toml::node* node = find(key);
  if (node == nullptr) return otherwise;
  const auto value = node->value_exact<int64_t>();
  if (value && *value >= least && *value <= most) return *value;
  expected(*node, key, "a number from " + std::to_string(least) + " to " + std::to_string(most));
  return otherwise;
}

std::string Section::labelOf(const std::string& key) const {
  if (name_.empty()) return key;
  return "[" + name_ + "]" + (key.empty() ? "" : " " + key);
}

}  // namespace common
