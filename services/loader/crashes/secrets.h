#pragma once
// secrets.h: what a report must not tell.

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace loader {

// The name of a field with this id in the text of a message: "global(7)".
std::string nameInReport(unsigned int field);

// The services that sent what the messages in a report are made of, each once.
std::set<unsigned int> sendersIn(std::string_view report);

// The report with "(secret)" in the place of each value of a field of these names, with everything that lies in it.
std::string maskSecrets(std::string_view report, const std::set<std::string>& names);

}  // namespace loader
