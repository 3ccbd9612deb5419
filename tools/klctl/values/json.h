#pragma once
// json.h: messages as JSON objects, one member a field, and back.
//
// Members are named as FieldNames names fields.  A bool is a JSON boolean, a u32 or u64 a number (or the word that a
// dictionary has for it), a string a string, an address its usual text, raw bytes two hexadecimal digits each with
// colons between them ("02:fc:00"), a nested message an object, an array of anything an array.  A secret field is left
// out, or says so, unless the secrets are shown.  The result of
// toJson() is read back by messageFrom() as an equal message, strings that are no UTF-8 excepted (printing replaces
// their broken characters).

#include <nlohmann/json.hpp>
#include <string>

#include "kl/message.h"
#include "values/field_names.h"

namespace klctl {

// Keeps its members in the order of showing.
using Json = nlohmann::ordered_json;

Json toJson(const kl::message& m, const FieldNames& names);

// Reads an object.  Besides what toJson writes, a number may stand in a string, in decimal or hexadecimal
// ("0x10") or with a unit where its field has one ("10 s", units.h), a boolean as "true" or "false".  Throws Failure(kUsage) for a member that names no field and
// for a value that the field cannot hold.
kl::message messageFrom(const Json& object, const FieldNames& names);

// Gives a field a value as messageFrom does.
void insertJson(kl::message& m, unsigned int id, const Json& value, const FieldNames& names);

// The text that toJson gives raw bytes.
std::string rawText(const std::vector<unsigned char>& bytes);

}  // namespace klctl
