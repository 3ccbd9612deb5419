#pragma once
// configuration.h: the configuration file, read and checked.

#include <string>
#include <vector>

#include "keeping/log_file.h"
#include "keeping/topic_names.h"

namespace logd {

struct Configuration {
  unsigned int memory = 4 * 1024 * 1024;  // bytes of lines
  unsigned int clients = 256;             // at the same time
  unsigned int linesPerSecond = 2000;     // of one client; 0: as many as it likes
  unsigned int burst = 10000;             // that it may write at once
  std::string syslog;                     // the socket that gets every line, too; empty: none
  TopicNames names;
  Topics muted;
  std::vector<FileRule> files;
};

// Something in a file that is not as it must be.
struct Mistake {
  std::string file;
  unsigned int line = 0;  // 0: the file as a whole
  std::string text;       // what was expected

  std::string describe() const;  // "FILE:LINE: TEXT"
};

// Reads a configuration file and the list of topics that it names.  Every mistake is added to `mistakes`; without
// one the result is complete.
Configuration readConfiguration(const std::string& file, std::vector<Mistake>& mistakes);
// The same from text; `file` is only its name.
Configuration parseConfiguration(const std::string& text, const std::string& file,
                                 std::vector<Mistake>& mistakes);

}  // namespace logd
