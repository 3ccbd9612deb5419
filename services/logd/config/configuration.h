#pragma once
// configuration.h: the configuration file, read and checked.

#include <string>

#include "intake/limits.h"
#include "keeping/log_book.h"
#include "services/common/command_line.h"
#include "services/common/known_users.h"

namespace logd {

struct Configuration {
  Limits limits;
  BookRules book;
  common::KnownUsers users;  // as the system lists them now
};

// Reads the file that the command line names, and the list of topics that it names.  Every mistake is added to
// `mistakes`; without one the result is complete.
Configuration readConfiguration(const common::CommandLine& line, common::Mistakes& mistakes);
// The same from text; `file` is only its name.
Configuration parseConfiguration(const std::string& text, const std::string& file,
                                 common::Mistakes& mistakes);

}  // namespace logd
