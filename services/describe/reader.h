#pragma once
// reader.h: reads descriptions.

#include <string>

#include "services/common/configuration_file.h"
#include "services/describe/description.h"

namespace describe {

// The fate of keys that the format does not have.
enum class OtherKeys {
  kRefused,  // they are mistakes: for whoever checks a description
  kIgnored,  // for programs that read names only, and may be older than the file
};

// Reads the text of a description.  Parts that cannot be read are left out, and said in `mistakes` with the file, the
// line and what was expected.  Whether the parts agree with each other is check()'s question (check.h).
Description read(const std::string& text, const std::string& file, OtherKeys otherKeys,
                 common::Mistakes& mistakes);

// Reads a whole file in this way; a description of nothing, and a mistake, where it cannot be read.
Description readFile(const std::string& file, OtherKeys otherKeys, common::Mistakes& mistakes);

}  // namespace describe
