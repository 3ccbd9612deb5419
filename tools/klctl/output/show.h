#pragma once
// show.h: messages as the text that the user asked for.

#include <string>
#include <vector>

#include "kl/message.h"
#include "values/field_names.h"
#include "values/json.h"

namespace klctl {

// JSON over several lines, and on one.
std::string jsonText(const Json& value);
std::string jsonLine(const Json& value);

// The columns of a table: every field that at least one object has, in the order of showing.
std::vector<std::string> columnsOf(const std::vector<Json>& objects, const FieldNames& names);

std::vector<Json> toJson(const std::vector<kl::message::flat_message>& objects, const FieldNames& names);

// Field by field.
std::string dumpText(const kl::message& m);

}  // namespace klctl
