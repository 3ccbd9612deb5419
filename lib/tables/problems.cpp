// The demands of a description on an object, and the error for one that does not meet them.
//
//     required   the field is there
//     min, max   of a number its value; of a text, of bytes and of an array the length
//     values     of a u32 with words for its values: it is one of them
//
// A bool, an address and a message have no bounds.

#include "tables/problems.h"

#include <algorithm>
#include <cstdio>

#include "kl/commands.h"
#include "tables/flat_fields.h"

namespace kl {
namespace {

bool isNumber(const Record& record) {
  return !record.isArray() && (record.kind() == RecordKind::kU32 || record.kind() == RecordKind::kU64);
}

// The number that the bounds are about.
unsigned long long amountOf(const Record& record) {
  if (record.isArray()) return record.count();
  if (record.kind() == RecordKind::kU32) return record.u32();
  return record.kind() == RecordKind::kU64 ? record.u64() : record.payload().size();
}

const char* unitOf(const Record& record) {
  if (isNumber(record)) return "";
  return record.isArray() ? " elements" : " bytes";
}

bool isBounded(const Record& record) {
  return record.isArray() || (record.kind() != RecordKind::kBool && record.kind() != RecordKind::kAddr6 &&
                              record.kind() != RecordKind::kMessage);
}

// "at most 63 bytes".
void addProblem(const FieldRule& rule, const char* form, unsigned long long amount, const char* unit,
                unsigned int code, Problems& problems) {
  char text[64];
  (void)std::snprintf(text, sizeof text, form, amount, unit);
  problems.add(rule.id, text, code);
}

void checkValue(const FieldRule& rule, const Record& record, Problems& problems) {
  if (!isBounded(record)) return;
  const unsigned long long amount = amountOf(record);
  const char* const unit = unitOf(record);
  if (amount < rule.min) addProblem(rule, "at least %llu%s", rule.min, unit, ERROR_FAILED, problems);
  if (amount > rule.max)
    addProblem(rule, "at most %llu%s", rule.max, unit, isNumber(record) ? ERROR_FAILED : ERROR_TOOBIG,
               problems);
  if (rule.values.empty() || !isNumber(record)) return;
  if (std::find(rule.values.begin(), rule.values.end(), amount) == rule.values.end())
    addProblem(rule, "%llu is none of its values%s", amount, "", ERROR_FAILED, problems);
}

}  // namespace

void Problems::add(unsigned int field, std::string_view what, unsigned int code) {
  const FieldRule* rule = rules_.find(field);
  if (empty()) code_ = code;
  else text_ += "; ";
  if (rule != nullptr) text_.append(rule->name);
  else text_.append("field ").append(std::to_string(field));
  text_ += ": ";
  text_ += what;
}

message refusalOf(const ObjectRules& rules, const message& request) {
  Problems problems(rules);
  findProblems(rules, request, request, problems);
  return problems.reply();
}

void findProblems(const ObjectRules& rules, const message& object, const message& request,
                  Problems& problems) {
  const message::flat_message all = object.flattened();
  const message::flat_message given = request.flattened();
  for (const FieldRule& rule : rules.fields) {
    Record record;
    if (!findRecord(all, rule.id, record)) {
      if ((rule.uses & FieldRule::kRequired) != 0) problems.add(rule.id, "missing", ERROR_MISSING);
    } else if (findRecord(given, rule.id, record)) {
      checkValue(rule, record, problems);
    }
  }
}

}  // namespace kl
