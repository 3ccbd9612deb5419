#pragma once
// show.h: messages as text: JSON, tables that fit the terminal, dumps.  None of it can steer a terminal.

#include <string>
#include <vector>

#include "ask/fetch.h"
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
// The same without the fields that `names` hides, also in messages inside.
std::string dumpText(const kl::message& m, const FieldNames& names);

// An exchange that also adds the dump of each reply to `text`.  The arguments are borrowed.
Exchange dumping(const Exchange& exchange, std::string& text, const FieldNames& names);

// The message without the fields that `names` hides, also in messages inside.
kl::message withoutSecrets(const kl::message& m, const FieldNames& names);

// One object: a line for each member, its name and its value, which has the unit of its field behind it.
std::string objectTable(const Json& object, const FieldNames& names = FieldNames());

// Many objects: a line for each, a column for each of `columns`.  If such a line were longer than `width` characters,
// every object gets its lines as objectTable() gives them, with an empty one between two.  Units stand in the titles.
std::string objectsTable(const std::vector<Json>& objects, const std::vector<std::string>& columns,
                         std::size_t width, const FieldNames& names = FieldNames());

// Characters in a line of the terminal that the standard output is; without limit when it is none.
std::size_t lineWidth();

}  // namespace klctl
