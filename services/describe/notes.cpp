// The notes on a field, the same on every kind of page.

#include "services/describe/notes.h"

namespace describe {
namespace {

void add(std::string& all, const std::string& text) {
  if (!text.empty()) all += (all.empty() ? "" : "; ") + text;
}

std::string unitOf(const Field& field) {
  if (field.unit.empty()) return {};
  const bool isNumber = field.unit.front() >= '0' && field.unit.front() <= '9';
  return (isNumber ? "in units of " : "in ") + field.unit;
}

std::string boundsOf(const Field& field) {
  if (field.min && field.max) return std::to_string(*field.min) + " to " + std::to_string(*field.max);
  if (field.min) return "at least " + std::to_string(*field.min);
  if (field.max) return "at most " + std::to_string(*field.max);
  return {};
}

}  // namespace

std::string notesOf(const Field& field) {
  std::string all = field.doc;
  add(all, unitOf(field));
  add(all, boundsOf(field));
  std::string words;
  for (const Value& value : field.values)
    words += (words.empty() ? "" : ", ") + std::to_string(value.number) + " " + value.word;
  add(all, words);
  if (!field.initial.empty()) add(all, "without it " + field.initial);
  if (field.isRequired) add(all, "always there");
  if (field.isSecret) add(all, "secret");
  if (!field.since.empty()) add(all, "since " + field.since);
  if (!field.deprecated.empty()) add(all, "deprecated: " + field.deprecated);
  return all;
}

}  // namespace describe
