#pragma once
// header.h: a description as a C++ header.

#include <string>

#include "services/common/configuration_file.h"
#include "services/describe/description.h"

namespace klgen {

// The text of a header: a constant for each field, setting, command, handler and topic, an enumeration for each field
// with words for its values, and a structure for each object and for what commands of a service's own take and give.
// Names that would come twice in C++ are mistakes in `file`.
std::string headerOf(const describe::Description& description, const std::string& file,
                     common::Mistakes& mistakes);

}  // namespace klgen
