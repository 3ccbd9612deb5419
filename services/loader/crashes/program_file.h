#pragma once
// program_file.h: the file that a process runs.

#include <sys/types.h>

#include <string>

namespace loader {

struct ProgramFile {
  std::string path;
  unsigned long long inode = 0;  // 0: the file could not be looked at
  std::string buildId;           // empty: none

  // As the kernel says; without a path where it does not.
  static ProgramFile ofProcess(pid_t pid);
  // As a configuration says, for a process that ended before anybody could ask.
  static ProgramFile atPath(const std::string& path);
};

}  // namespace loader
