// The index is made last, as the store itself does: an end in between leaves an empty data file without an index, which
// counts as no trace.  No file that is there is opened, however it came: another process may be making the same store.

#include "kl/new_store.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "base/descriptor.h"

namespace kl {
namespace {

constexpr mode_t kFolder = 0777;  // as the umask allows

// Is anything there, a link that leads nowhere included?
bool isThere(const std::string& file) {
  struct stat facts {};
  return ::lstat(file.c_str(), &facts) == 0;
}

// A lock file may hold the change of a store whose files were lost.
bool hasContent(const std::string& file) {
  struct stat facts {};
  return ::stat(file.c_str(), &facts) == 0 && facts.st_size > 0;
}

bool isFile(const std::string& file) {
  struct stat facts {};
  return ::lstat(file.c_str(), &facts) == 0 && S_ISREG(facts.st_mode);
}

void makeFolders(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
    (void)::mkdir(path.substr(0, slash).c_str(), kFolder);
}

void makeEmpty(const std::string& file) { const Descriptor made(file.c_str(), O_WRONLY | O_CREAT | O_EXCL); }

}  // namespace

std::string newStore(const std::string& path) {
  if (isThere(path + ".idx") || hasContent(path + ".dat") || hasContent(path + ".lock")) return path;
  makeFolders(path);
  makeEmpty(path + ".dat");
  if (isFile(path + ".dat")) makeEmpty(path + ".idx");
  return path;
}

}  // namespace kl
