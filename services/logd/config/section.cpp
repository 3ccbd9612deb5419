#include "config/section.h"

#include <algorithm>

#include "config/configuration.h"

namespace logd {

const toml::node* Section::find(const std::string& key) {
  known_.insert(key);
  return table_.get(key);
}

std::string Section::text(const std::string& key, const std::string& otherwise) {
  const toml::node* node = find(key);
  if (node == nullptr) return otherwise;
  if (const auto value = node->value_exact<std::string>(); value && !value->empty()) return *value;
  expected(*node, key, "a text");
  return otherwise;
}

unsigned int Section::number(const std::string& key, unsigned int otherwise, unsigned int least,
                             unsigned int most) {
  const toml::node* node = find(key);
  if (node == nullptr) return otherwise;
  if (const auto value = node->value_exact<int64_t>(); value && *value >= least && *value <= most)
    return static_cast<unsigned int>(*value);
  expected(*node, key, "a number from " + std::to_string(least) + " to " + std::to_string(most));
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

std::vector<std::string> Section::words(const std::string& key) {
  const toml::node* node = find(key);
  if (node == nullptr) return {};
  std::vector<std::string> result;
  const toml::array* list = node->as_array();
  if (list == nullptr) {
    expected(*node, key, "a list");
    return {};
  }
  for (const toml::node& entry : *list) {
    if (const auto number = entry.value_exact<int64_t>()) result.push_back(std::to_string(*number));
    else if (const auto word = entry.value_exact<std::string>()) result.push_back(*word);
    else expected(entry, key, "a list of names and numbers");
  }
  return result;
}

void Section::expected(const toml::node& node, const std::string& key, const std::string& what) {
  mistakes_.push_back({file_, node.source().begin.line, labelOf(key) + ": expected " + what});
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

std::string Section::labelOf(const std::string& key) const {
  return name_.empty() ? key : "[" + name_ + "] " + key;
}

}  // namespace logd
