#pragma once
// check.h: whether the parts of a description agree with each other.

#include <string>

#include "services/common/configuration_file.h"
#include "services/describe/description.h"

namespace describe {

// Words of small letters, digits and single underscores, the first a letter: what every name in a description is, so
// that it is also a name in C++, in a shell and on a page.
bool isName(const std::string& word);

// Says what does not fit together: names and numbers that are used twice, names that stand for nothing, bounds that
// nothing can keep, and numbers that are reserved and used.
void check(const Description& description, const std::string& file, common::Mistakes& mistakes);

}  // namespace describe
