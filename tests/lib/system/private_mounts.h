#pragma once
// private_mounts.h: files of the system replaced for one child process.

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/support/process/child_process.h"

namespace kl::test {

inline void require(bool works, const std::string& what) {
  if (works) return;
  std::perror(what.c_str());
  std::_Exit(99);
}

inline void writeFile(const std::string& path, const std::string& text) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  require(fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), path);
  (void)::close(fd);
}

// Gives the calling process, which must be a child of the test, mounts of its own.
inline void takePrivateMounts() {
  const std::string user = "0 " + std::to_string(::geteuid()) + " 1";
  const std::string group = "0 " + std::to_string(::getegid()) + " 1";
  if (::unshare(CLONE_NEWNS) != 0) {
    require(::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "unshare");
    writeFile("/proc/self/uid_map", user);
    writeFile("/proc/self/setgroups", "deny");
    writeFile("/proc/self/gid_map", group);
  }
  require(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
}

// May it have them?
inline bool privateMountsAreAllowed() {
  ChildProcess child(
      [] { ::_exit(::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 ? 0 : 1); });
  return child.waitForEnd() == 0;
}

// Covers `folder` by an empty one, after takePrivateMounts().
inline void coverFolder(const std::string& folder) {
  require(::mount("tmpfs", folder.c_str(), "tmpfs", 0, nullptr) == 0, "mount on " + folder);
}

// "/a/b/c" makes /a and /a/b.
inline void makeParents(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
    (void)::mkdir(path.substr(0, slash).c_str(), 0755);
}

}  // namespace kl::test
