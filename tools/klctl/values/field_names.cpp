// The names that every message shares, and the order in which fields are shown.

#include "values/field_names.h"

#include <algorithm>
#include <limits>

#include "services/describe/words.h"
#include "values/field_id.h"

namespace klctl {
namespace {
constexpr unsigned int kBuiltInRank = 0x10000;  // every name of a dictionary comes before
constexpr unsigned int kNoRank = std::numeric_limits<unsigned int>::max();
constexpr unsigned int kMaxCommand = 0x00ffffff;

}  // namespace

FieldNames::FieldNames() : nextRank_(kBuiltInRank) {
  for (const describe::Named& field : describe::standardFields()) {
    ids_[field.name] = field.number;
    add(describe::shortForm(field.name), field.number);
  }
  for (const describe::Named& field : describe::systemFields()) add(field.name, field.number);
  nextRank_ = 0;
}

void FieldNames::add(const std::string& name, unsigned int id) {
  ids_[name] = id;
  names_[id] = {name, nextRank_++};
}

std::optional<unsigned int> FieldNames::find(const std::string& word) const {
  if (const auto known = ids_.find(word); known != ids_.end()) return known->second;
  return parseFieldId(word);
}

std::string FieldNames::nameOf(unsigned int id) const {
  const auto known = names_.find(id);
  if (known == names_.end()) return fieldIdText(id);
  const std::string& word = known->second.word;
  return ids_.at(word) == id ? word : fieldIdText(id);  // a later name may have taken the word
}

void FieldNames::addValue(unsigned int id, const std::string& word, unsigned int value) {
  values_[id][word] = value;
}

std::optional<std::string> FieldNames::valueWord(unsigned int id, unsigned int value) const {
  const auto words = values_.find(id);
  if (words == values_.end()) return {};
  for (const auto& [word, number] : words->second)
    if (number == value) return word;
  return {};
}

std::optional<unsigned int> FieldNames::findValue(unsigned int id, const std::string& word) const {
  const auto words = values_.find(id);
  if (words == values_.end()) return {};
  const auto value = words->second.find(word);
  if (value == words->second.end()) return {};
  return value->second;
}

std::vector<std::string> FieldNames::valueWords(unsigned int id) const {
  const auto words = values_.find(id);
  std::multimap<unsigned int, std::string> inOrder;
  if (words != values_.end())
    for (const auto& [word, number] : words->second) inOrder.emplace(number, word);
  std::vector<std::string> all;
  for (const auto& [number, word] : inOrder) all.push_back(word);
  return all;
}

std::string FieldNames::unitOf(unsigned int id) const {
  const auto unit = units_.find(id);
  return unit == units_.end() ? "" : unit->second;
}

std::vector<std::string> FieldNames::words() const {
  std::vector<std::string> all;
  for (const auto& [word, id] : ids_) all.push_back(word);
  return all;
}

void FieldNames::sort(std::vector<unsigned int>& ids) const {
  std::sort(ids.begin(), ids.end(), [this](unsigned int a, unsigned int b) {
    const unsigned int rankA = rankOf(a);
    const unsigned int rankB = rankOf(b);
    if (rankA != rankB) return rankA < rankB;
    if ((a & kTypelessId) != (b & kTypelessId)) return (a & kTypelessId) < (b & kTypelessId);
    return a < b;
  });
}

unsigned int FieldNames::rankOf(unsigned int id) const {
  const auto known = names_.find(id);
  return known == names_.end() ? kNoRank : known->second.rank;
}

std::optional<unsigned int> parseCommand(const std::string& word) {
  if (const describe::StandardCommand* known = describe::findStandardCommand(word)) return known->code;
  if (const auto number = parseNumber(word, kMaxCommand)) return static_cast<unsigned int>(*number);
  return {};
}

std::string commandWord(unsigned int command) {
  for (const describe::StandardCommand& known : describe::standardCommands())
    if (command == known.code) return known.name;
  char text[16];
  (void)std::snprintf(text, sizeof text, "0x%x", command);
  return text;
}

}  // namespace klctl
