#include "tests/support/process/open_folder.h"

#include <unistd.h>

#include <cstdlib>

#include "tests/support/build/effort.h"

namespace kl::test {
namespace {

namespace fs = std::filesystem;

bool isEntered(const fs::path& folder) {
  return (fs::status(folder).permissions() & fs::perms::others_exec) != fs::perms::none;
}

}  // namespace

OpenFolder::OpenFolder(const fs::path& programs, const std::string& name) : program_(programs / name) {
  if (kEmulated) return;
  char folder[] = "/tmp/open_folder_XXXXXX";
  folder_ = ::mkdtemp(folder);
  fs::permissions(folder_, fs::perms(0755));
  fs::copy_file(program_, folder_ + "/" + name);
  fs::copy_file(programs.parent_path() / "lib/libkl.so.1", folder_ + "/libkl.so.1");
  program_ = folder_ + "/" + name;
}

OpenFolder::~OpenFolder() {
  if (!folder_.empty()) fs::remove_all(folder_);
}

bool OpenFolder::isOpen() const {
  for (fs::path path = program_; path != path.root_path(); path = path.parent_path())
    if (!isEntered(path)) return false;
  return true;
}

}  // namespace kl::test
