#include "tests/support/process/descriptors.h"

#include <dirent.h>

#include <algorithm>
#include <cstdlib>

namespace kl::test {

std::vector<int> openDescriptors() {
  std::vector<int> fds;
  DIR* folder = ::opendir("/proc/self/fd");
  while (const dirent* entry = ::readdir(folder))
    if (entry->d_name[0] != '.') fds.push_back(std::atoi(entry->d_name));
  std::erase(fds, ::dirfd(folder));
  ::closedir(folder);
  std::sort(fds.begin(), fds.end());
  return fds;
}

}  // namespace kl::test
