#pragma once
// assignment.h: the words "field=value" of the command line.

#include <string>

#include "kl/message.h"
#include "values/field_names.h"

namespace klctl {

// Puts one assignment into a request:
//
//     descr=to the provider       everything behind the first '=' is the value
//     mtu=1500  mtu=0x5dc         numbers in decimal or hexadecimal
//     raw:2=02:fc:00:00:00:01     bytes
//     u32[]:5=1,2,3               elements behind commas; nothing for an empty array
//     string[]:6=["a,b", ""]      or a JSON array
//     message:4={"u32:1": 7}      a JSON object, its members named like fields
//
// Throws Failure(kUsage) when the word has no '=', names no field or one that klctl sets itself (the path, the
// command, the request id ...), or when the value does not fit.
void assign(kl::message& request, const std::string& word, const FieldNames& names);

}  // namespace klctl
