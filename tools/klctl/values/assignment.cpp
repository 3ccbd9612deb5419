// Assignments become JSON, so that a value is read in one place only (json.cpp).

#include "values/assignment.h"

#include <algorithm>
#include <array>

#include "kl/conventions.h"
#include "values/failure.h"
#include "values/field_id.h"
#include "values/json.h"
#include "values/similar.h"

namespace klctl {
namespace {

// Fields that the command word or the library sets, or that no request may have.
constexpr std::array<unsigned int, 9> kOwnFields = {kl::SYS_TO,     kl::SYS_FROM,     kl::SYS_TYPE,
                                                    kl::SYS_STATUS, kl::SYS_REPLYEXP, kl::SYS_CMD,
                                                    kl::SYS_REQID,  kl::SYS_CTRL,     kl::SYS_CTRL_ARG};

bool isOwnField(unsigned int id) {
  return std::any_of(kOwnFields.begin(), kOwnFields.end(),
                     [id](unsigned int own) { return (own & kTypelessId) == (id & kTypelessId); });
}

// A secret is not repeated.
Json parseJson(unsigned int id, const std::string& text, const FieldNames& names) {
  try {
    return Json::parse(text);
  } catch (const nlohmann::json::exception&) {
    const std::string shown = names.isHidden(id) ? "" : ": " + text;
    throw usage("the value of " + names.nameOf(id) + " is not valid JSON" + shown);
  }
}

Json splitAtCommas(const std::string& text) {
  Json elements = Json::array();
  if (text.empty()) return elements;
  for (std::size_t start = 0;;) {
    const std::size_t comma = text.find(',', start);
    elements.push_back(text.substr(start, comma - start));
    if (comma == std::string::npos) return elements;
    start = comma + 1;
  }
}

Json parseValue(unsigned int id, const std::string& text, const FieldNames& names) {
  if (isArray(id) && text.starts_with('[')) return parseJson(id, text, names);
  if (isArray(id) && elementType(id) != kMessage) return splitAtCommas(text);
  if (elementType(id) == kMessage) return parseJson(id, text, names);
  return text;
}

}  // namespace

void assign(kl::message& request, const std::string& word, const FieldNames& names) {
  const std::size_t equals = word.find('=');
  if (equals == std::string::npos) throw usage("'" + word + "' is not of the form field=value");
  const std::string name = word.substr(0, equals);
  const auto id = names.find(name);
  if (!id) {
    throw usage("there is no field '" + name + "'" + didYouMean(name, names.words()) +
                " (a form like u32:5 or string:std.9 names any)");
  }
  if (isOwnField(*id)) throw usage(name + " is set by klctl itself");
  insertJson(request, *id, parseValue(*id, word.substr(equals + 1), names), names);
}

}  // namespace klctl
