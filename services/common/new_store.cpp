// The index is made last, as the store itself does: an end in between leaves an empty data file without an index, which
// counts as no trace.  No file that is there is opened, however it came: another process may be making the same store.

#include "services/common/new_store.h"

#include <fcntl.h>

#include <filesystem>

#include "services/common/descriptor.h"

namespace common {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kOwnerOnly = 0600;  // as the store makes them

// A lock file may hold the change of a store whose files were lost.
bool hasContent(const std::string& file) {
  std::error_code error;
  const auto length = fs::file_size(file, error);
  return !error && length > 0;
}

fs::file_type typeOf(const std::string& file) {
  std::error_code ignored;
  return fs::symlink_status(file, ignored).type();
}

void makeEmpty(const std::string& file) {
  const Descriptor made(::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kOwnerOnly));
}

}  // namespace

std::string newStore(const std::string& path) {
  if (typeOf(path + ".idx") != fs::file_type::not_found || hasContent(path + ".dat") ||
      hasContent(path + ".lock"))
    return path;
  std::error_code ignored;
  fs::create_directories(fs::path(path).parent_path(), ignored);
  makeEmpty(path + ".dat");
  if (typeOf(path + ".dat") == fs::file_type::regular) makeEmpty(path + ".idx");
  return path;
}

}  // namespace common
