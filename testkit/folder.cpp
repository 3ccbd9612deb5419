// The folder in front of the fixed paths, so that no test meets the machine's own system.
//
// The library reads KL_ROOT once, so all tests of a program have one folder, and each begins with it empty.

#include "testkit/folder.h"

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "kl/utilities.h"
#include "testkit/failures.h"

namespace kl::test {
namespace {

namespace fs = std::filesystem;

// Names of sockets must fit behind it, and a process of root takes no folder that others may write in.
std::string placeOfFolders() {
  if (::geteuid() == 0) return "/run";
  const char* const given = std::getenv("TMPDIR");
  const std::string place = given != nullptr ? given : "/tmp";
  return place.size() <= 60 && place.starts_with("/") ? place : "/tmp";
}

void makeFolders(const std::string& root) {
  std::error_code ignored;
  for (const char* folder : {"/ram", "/kelo/run", "/kelo/logs"})
    fs::create_directories(root + folder, ignored);
}

// The folder of this process, which ends with it; a child that was forked leaves it alone.
class Folder {
 public:
  Folder() {
    std::string name = placeOfFolders() + "/kl-test.XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
      report("cannot make a folder like " + name);
      return;
    }
    (void)::setenv("KL_ROOT", name.c_str(), 1);
    if (underRoot("") == name) name_ = name;
    else ::rmdir(name.c_str());
  }
  ~Folder() {
    std::error_code ignored;
    if (!name_.empty() && owner_ == ::getpid()) fs::remove_all(name_, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  const std::string& name() const { return name_; }

  void clear() const {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(name_, ignored)) fs::remove_all(entry.path(), ignored);
    makeFolders(name_);
  }

 private:
  std::string name_;
  pid_t owner_ = ::getpid();
};

}  // namespace

std::string freshRoot() {
  static const bool isGiven = std::getenv("KL_ROOT") != nullptr;
  if (isGiven) return underRoot("");
  static const Folder folder;
  if (folder.name().empty()) {
    report(
        "a fixed path was asked for before the bus was made, so that the test would meet the machine's own "
        "system");
    return {};
  }
  folder.clear();
  return folder.name();
}

}  // namespace kl::test
