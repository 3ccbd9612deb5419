// The report goes to the other program through a file without a name, so that neither waits for the other.

#include "verbs/symbolize.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "services/common/descriptor.h"

namespace klctl {
namespace {

constexpr std::size_t kLongestMapping = 100;  // of the mappings; a longer one is cut
constexpr std::size_t kMostAnswer = 1024 * 1024;

using common::Descriptor;

// A report may name any file: one that somebody else has written is not for the debugger of this user, who may be root.
bool isTrusted(const std::string& path) {
  struct stat facts {};
  if (!path.starts_with('/') || ::access(path.c_str(), R_OK) != 0 || ::stat(path.c_str(), &facts) != 0)
    return false;
  const bool isForOthersToWrite = (facts.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  return S_ISREG(facts.st_mode) && !isForOthersToWrite && (facts.st_uid == 0 || facts.st_uid == ::geteuid());
}

std::string besideThisProgram() {
  char path[PATH_MAX];
  const ssize_t size = ::readlink("/proc/self/exe", path, sizeof path);
  const std::string program(path, size > 0 ? static_cast<std::size_t>(size) : 0);
  return program.substr(0, program.rfind('/') + 1) + "symbolize";
}

Descriptor reportFile(const std::string& text) {
  Descriptor file(::memfd_create("report", MFD_CLOEXEC));
  const auto size = static_cast<ssize_t>(text.size());
  if (file.isOpen() &&
      (::write(file.get(), text.data(), text.size()) != size || ::lseek(file.get(), 0, SEEK_SET) != 0))
    file.close();
  return file;
}

[[noreturn]] void becomeSymbolize(const std::vector<std::string>& words, int input, int output) {
  const int nothing = ::open("/dev/null", O_RDWR);
  if (::dup2(input, STDIN_FILENO) < 0 || ::dup2(output, STDOUT_FILENO) < 0 ||
      ::dup2(nothing, STDERR_FILENO) < 0)
    ::_exit(127);
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  ::execv(besideThisProgram().c_str(), arguments.data());
  ::execvp("symbolize", arguments.data());
  ::_exit(127);
}

std::string readAnswer(int fd) {
  std::string text;
  char bytes[4096];
  while (text.size() < kMostAnswer) {
    const ssize_t count = ::read(fd, bytes, sizeof bytes);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    text.append(bytes, static_cast<std::size_t>(count));
  }
  return text;
}

// Empty unless it succeeds.
std::string runSymbolize(const std::vector<std::string>& words, const std::string& input) {
  const Descriptor file = reportFile(input);
  int ends[2];
  if (!file.isOpen() || ::pipe2(ends, O_CLOEXEC) != 0) return {};
  const Descriptor reader(ends[0]);
  Descriptor writer(ends[1]);
  const pid_t pid = ::fork();
  if (pid == 0) becomeSymbolize(words, file.get(), writer.get());
  writer.close();
  if (pid < 0) return {};
  const std::string text = readAnswer(reader.get());
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? text : "";
}

}  // namespace

std::string symbolized(const std::string& report, const std::string& program) {
  if (!isTrusted(program)) return {};
  std::vector<std::string> words = {"symbolize", "-", program};
  for (const std::string& library : librariesIn(report, program)) words.push_back(library);
  return runSymbolize(words, report);
}

std::vector<std::string> librariesIn(const std::string& report, const std::string& program) {
  std::vector<std::string> libraries;
  const std::size_t maps = report.find("\n\nmaps:\n");
  std::istringstream lines(maps == std::string::npos ? "" : report.substr(maps + 8));
  for (std::string line; std::getline(lines, line) && line.find(" r-xp ") != std::string::npos;) {
    const std::size_t slash = line.find('/');
    if (line.size() >= kLongestMapping || slash == std::string::npos) continue;
    const std::string path = line.substr(slash);
    const bool isNew = std::find(libraries.begin(), libraries.end(), path) == libraries.end();
    if (path != program && isNew && isTrusted(path)) libraries.push_back(path);
  }
  return libraries;
}

}  // namespace klctl
