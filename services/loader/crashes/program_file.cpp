// The link in /proc leads to the file even after its name has gone, or has become that of another one.

#include "crashes/program_file.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include "crashes/elf_file.h"
#include "services/common/descriptor.h"

namespace loader {
namespace {

// Nothing but a file is read: opening a device may do something, and a pipe would wait.
ProgramFile lookAt(const std::string& link, std::string path) {
  ProgramFile program{std::move(path), 0, ""};
  const common::Descriptor file(::open(link.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file.isOpen() || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return program;
  program.inode = status.st_ino;
  if (const auto elf = ElfFile::read(file.get())) program.buildId = elf->buildId();
  return program;
}

}  // namespace

ProgramFile ProgramFile::ofProcess(pid_t pid) {
  const std::string link = "/proc/" + std::to_string(pid) + "/exe";
  char path[PATH_MAX];
  const ssize_t size = ::readlink(link.c_str(), path, sizeof path);
  if (size <= 0) return {};
  return lookAt(link, std::string(path, static_cast<std::size_t>(size)));
}

ProgramFile ProgramFile::atPath(const std::string& path) {
  return path.starts_with('/') ? lookAt(path, path) : ProgramFile{path, 0, ""};
}

}  // namespace loader
