#include "output/show.h"

#include <algorithm>
#include <sstream>

#include "kl/conventions.h"
#include "output/table.h"

namespace klctl {
namespace {
constexpr int kJsonIndent = 2;
constexpr int kOneLine = -1;

std::string indented(const Json& value, int indent) {
  return value.dump(indent, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

std::string jsonText(const Json& value) { return indented(value, kJsonIndent); }
std::string jsonLine(const Json& value) { return indented(value, kOneLine); }

// The columns of a table: every field that at least one object has.
std::vector<std::string> columnsOf(const std::vector<Json>& objects, const FieldNames& names) {
  std::vector<unsigned int> ids;
  for (const Json& object : objects)
    for (const auto& [name, value] : object.items()) ids.push_back(names.find(name).value_or(kl::BADID));
  names.sort(ids);
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  std::vector<std::string> columns(ids.size());
  std::transform(ids.begin(), ids.end(), columns.begin(), [&](unsigned int id) { return names.nameOf(id); });
  return columns;
}

std::vector<Json> toJson(const std::vector<kl::message::flat_message>& objects, const FieldNames& names) {
  std::vector<Json> result(objects.size());
  std::transform(objects.begin(), objects.end(), result.begin(),
                 [&](const auto& object) { return klctl::toJson(kl::message(object), names); });
  return result;
}

std::string dumpText(const kl::message& m) {
  std::ostringstream text;
  m.dump2(text, "", 0);
  return text.str();
}

}  // namespace klctl
