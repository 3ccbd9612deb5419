#include "config/section.h"

#include "config/configuration.h"
#include "kl/conventions.h"

namespace loader {
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

void Mistakes::add(const toml::node& where, const std::string& text) {
  list.push_back({file, where.source().begin.line, text});
}

Section::Section(const toml::table& table, std::string name, Mistakes mistakes)
    : table_(table), name_(std::move(name)), mistakes_(std::move(mistakes)) {}

Section Section::table(const std::string& key) {
  const toml::node* node = find(key);
  if (node != nullptr && !node->is_table()) expected(*node, key, "a table");
  return Section(node != nullptr && node->is_table() ? *node->as_table() : kNoTable, key, mistakes_);
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

long long Section::number(const std::string& key, long long otherwise, long long least, long long most) {
  const toml::node* node = find(key);
  if (node == nullptr) return otherwise;
  if (const auto value = node->value_exact<int64_t>(); value && *value >= least && *value <= most)
    return *value;
  expected(*node, key, "a number from " + std::to_string(least) + " to " + std::to_string(most));
  return otherwise;
}

std::vector<std::string> Section::texts(const std::string& key) {
  const toml::node* node = find(key);
  if (node == nullptr) return {};
  std::vector<std::string> result;
  const toml::array* list = node->as_array();
  if (list == nullptr || list->empty() || !list->is_homogeneous(toml::node_type::string)) {
    expected(*node, key, "a list of texts: the program and its arguments");
    return {};
  }
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

void Section::expected(const toml::node& node, const std::string& key, const std::string& what) {
  mistakes_.add(node, labelOf(key) + ": expected " + what + ", found " + kindOf(node));
}

void Section::mistake(const std::string& text) { mistakes_.add(table_, labelOf("") + ": " + text); }

void Section::refuseOthers() {
  std::string choices;
  for (const std::string& key : known_) choices += (choices.empty() ? "" : ", ") + key;
  for (const auto& [key, value] : table_) {
    if (known_.contains(std::string(key.str()))) continue;
    mistakes_.list.push_back({mistakes_.file, key.source().begin.line,
                              labelOf(std::string(key.str())) + ": expected one of the keys " + choices});
  }
}

std::string Section::labelOf(const std::string& key) const {
  if (name_.empty()) return key;
  return "[" + name_ + "]" + (key.empty() ? "" : " " + key);
}

bool isConfigurable(unsigned int id) {
  return id > kl::SERVICE_LOADER && id != kl::BADID && (id < kl::PATH_ALL || id > kl::PATH_SELF);
}

}  // namespace loader
