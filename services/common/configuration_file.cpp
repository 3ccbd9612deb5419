// A file is read with read(), whose errors are values: the C++ streams report a folder that was opened as a file by an
// exception from inside their buffer, which would end the program without a word of use.

#include "services/common/configuration_file.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "services/common/descriptor.h"
#include "services/common/text.h"

namespace common {
namespace {

constexpr std::size_t kReadBytes = 16384;

// Appends what is left of the file, up to a byte more than it may have; false when it cannot be read, with errno.
bool readAll(int fd, std::string& text) {
  char bytes[kReadBytes];
  while (text.size() <= kMostFileBytes) {
    const ssize_t n = ::read(fd, bytes, sizeof bytes);
    if (n == 0) break;
    if (n > 0) text.append(bytes, static_cast<std::size_t>(n));
    else if (errno != EINTR) return false;
  }
  return true;
}

std::optional<std::string> fail(const std::string& file, const std::string& text, Mistakes& mistakes) {
  mistakes.push_back({file, 0, text});
  return {};
}

std::optional<std::string> read(const std::string& file, bool mayBeMissing, Mistakes& mistakes) {
  const Descriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!descriptor.isOpen() && mayBeMissing && (errno == ENOENT || errno == ENOTDIR)) return "";
  std::string text;
  if (!descriptor.isOpen() || !readAll(descriptor.get(), text))
    return fail(file, std::string("expected a file that can be read: ") + std::strerror(errno), mistakes);
  if (text.size() > kMostFileBytes)
    return fail(file, "expected a file of at most " + std::to_string(kMostFileBytes) + " bytes", mistakes);
  return text;
}

}  // namespace

std::string Mistake::describe() const {
  return file + (line > 0 ? ":" + std::to_string(line) : "") + ": " + text;
}

void report(const Mistakes& mistakes, const std::string& program) {
  for (const Mistake& mistake : mistakes)
    std::cerr << program << ": " << printable(mistake.describe()) << '\n';
}

std::optional<std::string> readFile(const std::string& file, Mistakes& mistakes) {
  return read(file, false, mistakes);
}

std::optional<std::string> readFileIfThere(const std::string& file, Mistakes& mistakes) {
  return read(file, true, mistakes);
}

}  // namespace common
