#pragma once
// own_network.h: a network namespace for one test, in which it may make interfaces.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <initializer_list>
#include <string>
#include <vector>

#include "tests/support/process/child.h"

namespace network {

// Runs ip with these words; where `inside` is given, in the network namespace of that process.
inline bool ip(const std::string& words, pid_t inside = 0) {
  const std::string line = inside == 0 ? "exec ip " + words
                                       : "exec nsenter --target " + std::to_string(inside) +
                                             " --user --preserve-credentials --net ip " + words;
  return kl::test::runProgram({"/bin/sh", "-c", line}).exitStatus == 0;
}

// Makes an interface, of a kind that this kernel has.
inline bool addLink(const std::string& name, pid_t inside = 0) {
  return ip("link add " + name + " type veth peer name " + name + "-peer", inside) ||
         ip("link add " + name + " type dummy", inside);
}

// Moves this process into a network namespace of its own; false when the kernel refuses.
inline bool enter() {
  const std::string user = std::to_string(::geteuid());
  const std::string group = std::to_string(::getegid());
  if (::unshare(CLONE_NEWNET) == 0) return true;
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
  const auto write = [](const char* file, const std::string& text) {
    const int fd = ::open(file, O_WRONLY | O_CLOEXEC);
    const bool isWritten = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return isWritten;
  };
  return write("/proc/self/setgroups", "deny") && write("/proc/self/uid_map", "0 " + user + " 1") &&
         write("/proc/self/gid_map", "0 " + group + " 1");
}

// May a program be started in one?  Root of a namespace takes no folder of an ordinary user as KL_ROOT.
inline bool isAllowed() {
  if (::geteuid() != 0 && std::getenv("KL_ROOT") != nullptr) return false;
  return kl::test::runProgram({"/usr/bin/unshare", "--map-root-user", "--net", "/bin/true"}).exitStatus == 0;
}

}  // namespace network
