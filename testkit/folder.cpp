// The folder in front of the fixed paths, so that no test meets the machine's own system.
//
// The library reads KL_ROOT once, so all tests of a program have one folder, and each begins with it empty.

#include "testkit/folder.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <vector>

#include "kl/utilities.h"
#include "testkit/failures.h"

namespace kl::test {
namespace {

namespace fs = std::filesystem;

// Behind a longer one the names of sockets do not fit.
constexpr std::size_t kLongestPlace = 60;

std::string given(const char* variable) {
  const char* const value = std::getenv(variable);
  return value != nullptr ? value : "";
}

// A process of root takes no folder that others may write in.
std::string placeOfFolders() {
  if (std::string root = given("KL_ROOT"); !root.empty()) return root;
  if (::geteuid() == 0) return "/run";
  std::string place = given("TMPDIR");
  return place.starts_with("/") && place.size() <= kLongestPlace ? place : "/tmp";
}

constexpr std::array<std::string_view, 4> kFolders{"/ram", "/kelo", "/kelo/run", "/kelo/logs"};

bool isOfEverySystem(std::string_view path) {
  return std::find(kFolders.begin(), kFolders.end(), path) != kFolders.end();
}

void makeFolders(const std::string& root) {
  std::error_code ignored;
  for (const std::string_view folder : kFolders) fs::create_directory(root + std::string(folder), ignored);
}

// The folder of this process, which ends with it; a child that was forked leaves it alone.  None where the library has
// another one already, or where what KL_ROOT names is too long for a folder in it.
class Folder {
 public:
  Folder() {
    const std::string place = placeOfFolders();
    if (place.size() > kLongestPlace) return;
    const std::string before = given("KL_ROOT");
    std::string name = place + "/kl-test.XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
      report("cannot make a folder like " + name);
      return;
    }
    (void)::setenv("KL_ROOT", name.c_str(), 1);
    if (underRoot("") == name) {
      name_ = name;
      return;
    }
    ::rmdir(name.c_str());
    if (before.empty()) (void)::unsetenv("KL_ROOT");
    else (void)::setenv("KL_ROOT", before.c_str(), 1);
  }
  ~Folder() {
    std::error_code ignored;
    if (!name_.empty() && owner_ == ::getpid()) fs::remove_all(name_, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  const std::string& name() const { return name_; }

  // The folders of every system stay: to remove one takes the kernel longer than a test takes.
  void clear() const {
    std::error_code ignored;
    std::vector<fs::path> left;
    for (auto at = fs::recursive_directory_iterator(name_, ignored); at != fs::recursive_directory_iterator();
         at.increment(ignored)) {
      if (isOfEverySystem(at->path().string().substr(name_.size()))) continue;
      left.push_back(at->path());
      at.disable_recursion_pending();
    }
    for (const fs::path& path : left) fs::remove_all(path, ignored);
    makeFolders(name_);
  }

 private:
  std::string name_;
  pid_t owner_ = ::getpid();
};

}  // namespace

std::string freshRoot() {
  static const Folder folder;
  if (!folder.name().empty()) folder.clear();
  else if (given("KL_ROOT").empty())
    report(
        "a fixed path was asked for before the bus was made, so that the test would meet the machine's own "
        "system");
  return underRoot("");
}

}  // namespace kl::test
