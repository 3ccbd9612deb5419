// The folder in front of the fixed paths: what the environment variable KL_ROOT names, or what the library was built with.
//
// A user who may choose it chooses which loader a process talks to and which markers and stores it believes.
//
// R1  a program with more rights than its caller ignores the variable
// R2  it is read once: all paths of a process stand under one folder
// R3  a process of root takes only a folder in whose place nobody else can put another one: it and each folder above it
//     are root's, and root alone writes them.  A link is none of these
// R4  what cannot be taken ends the process; elsewhere it would be part of another system

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/report.h"
#include "fixed_paths.h"
#include "kl/utilities.h"

namespace kl {
namespace {

constexpr std::size_t kSuffixBytes =
    sizeof ".new" - 1;  // of the name that a socket has until somebody listens
constexpr std::size_t kMostBytes = sizeof(sockaddr_un::sun_path) - sizeof paths::kLogSocket - kSuffixBytes;
static_assert(sizeof paths::kLogSocket > sizeof paths::kLoaderSocket, "the longest socket counts");
static_assert(kMostBytes == 83, "the refusal says so");
static_assert(sizeof paths::kDefaultRoot <= kMostBytes + 1, "KL_ROOT, the option of the build, is too long");

[[noreturn]] void refuse(const char* what, const char* folder = "") {
  endProcess(std::string("KL_ROOT: expected ").append(what).append(folder));
}

bool hasUpwardStep(const char* path) {
  for (const char* at = path; (at = std::strstr(at, "/..")) != nullptr; at += 3)
    if (at[3] == '/' || at[3] == '\0') return true;
  return false;
}

bool isRootsAlone(const char* folder) {
  struct stat status {};
  return ::lstat(folder, &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == 0 &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// R3.  From the root of the file system downwards: what lies in a folder of root's alone stays what it is.
void refuseFoldersOfOthers(char* path) {
  if (!isRootsAlone("/")) refuse("a folder that root alone writes, unlike ", "/");
  for (char* at = path; *at != '\0';) {
    at += 1 + std::strcspn(at + 1, "/");
    const char next = std::exchange(*at, '\0');
    if (!isRootsAlone(path)) refuse("a folder that root alone writes, unlike ", path);
    *at = next;
  }
}

// The root, without a slash at its end: empty where the fixed paths are as they are written.
struct Root {
  Root();
  char folder[kMostBytes + 1] = {};
};

Root::Root() {
  const char* const given = ::secure_getenv("KL_ROOT");  // R1
  if (given == nullptr || *given == '\0') {
    std::memcpy(folder, paths::kDefaultRoot, sizeof paths::kDefaultRoot);
    return;
  }
  if (*given != '/') refuse("an absolute path");
  if (hasUpwardStep(given)) refuse("a path without ..");
  std::size_t bytes = std::strlen(given);
  while (bytes > 0 && given[bytes - 1] == '/') --bytes;
  if (bytes > kMostBytes) refuse("at most 83 bytes, so that sockets have room behind them");
  std::memcpy(folder, given, bytes);
  if (::geteuid() == 0) refuseFoldersOfOthers(folder);
}

}  // namespace

std::string underRoot(const std::string& path) {
  static const Root root;  // R2
  return std::string(root.folder).append(path);
}

}  // namespace kl
