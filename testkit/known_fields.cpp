// A field is known when its whole id is; one with the same number under another type is named, because that is what a
// slip of the pen looks like.

#include "testkit/known_fields.h"

#include <span>

#include "kl/conventions.h"
#include "kl/records.h"
#include "services/describe/field_id.h"
#include "services/describe/reader.h"
#include "testkit/failures.h"

namespace kl::test {
namespace {

// From here on name spaces belong to the library: local, std and sys.
constexpr unsigned int kFirstShared = 0xfd0000;

bool isShared(unsigned int id) { return (id & describe::kTypelessId) >= kFirstShared; }

}  // namespace

KnownFields::KnownFields(const std::string& text, const std::string& name) {
  common::Mistakes mistakes;
  const describe::Description description =
      describe::read(text, name, describe::OtherKeys::kIgnored, mistakes);
  if (!mistakes.empty()) report(mistakes.front().describe());
  service_ = description.name;
  for (const describe::Field& field : description.fields)
    fields_.insert({field.id & describe::kTypelessId, {field.id, field.name}});
}

std::string KnownFields::findStranger(const message& m) const {
  const message::flat_message bytes = m.flattened();
  RecordWalk walk(bytes);
  for (Record record; walk.next(record);)
    if (std::string fault = judge(record.id()); !fault.empty()) return fault;
  for (const auto& object : m.get(STD_OBJS, {}))
    if (std::string fault = findStranger(message(object)); !fault.empty()) return fault;
  return {};
}

std::string KnownFields::judge(unsigned int id) const {
  const auto [first, last] = fields_.equal_range(id & describe::kTypelessId);
  for (auto at = first; at != last; ++at)
    if (at->second.id == id) return {};
  if (first != last)
    return "the field " + first->second.name + " as " + describe::fieldIdText(id) +
           ", and the description of " + service_ + " has it as " + describe::fieldIdText(first->second.id);
  if (isShared(id)) return {};
  return "the field " + describe::fieldIdText(id) + ", which the description of " + service_ +
         " does not know";
}

}  // namespace kl::test
