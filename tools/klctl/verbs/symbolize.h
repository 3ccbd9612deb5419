#pragma once
// symbolize.h: the report of a crash with functions and lines.

#include <string>
#include <vector>

namespace klctl {

// The report of this program as symbolize(1), beside it or on the search path, writes it; empty where there is no
// symbolize, no addr2line(1), or the program is not there or, as each of the files here, might be somebody else's work: it
// belongs neither to root nor to the user, or others may write to it.
std::string symbolized(const std::string& report, const std::string& program);

// The libraries that a report names whole and that lie on this machine, each once.
std::vector<std::string> librariesIn(const std::string& report, const std::string& program);

}  // namespace klctl
