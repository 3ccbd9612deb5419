#pragma once
// tests/support/process/open_folder.h: a program in a place where every user gets to.

#include <filesystem>
#include <string>

namespace kl::test {

// A folder of its own with a copy of a program and of the library.  A checkout may lie where only its owner gets to, as
// in root's home, and a test that starts a program as another user has to take it elsewhere.  An emulated program finds
// its libraries where it was built, so it stays there.
class OpenFolder {
 public:
  // `programs` is the folder of all programs, KL_BIN_DIR.
  OpenFolder(const std::filesystem::path& programs, const std::string& name);
  ~OpenFolder();
  OpenFolder(const OpenFolder&) = delete;
  OpenFolder& operator=(const OpenFolder&) = delete;

  // May every user start the program?
  bool isOpen() const;
  const std::string& program() const { return program_; }
  // The value of LD_LIBRARY_PATH that the program is started with.
  const std::string& libraries() const { return folder_; }

 private:
  std::string folder_;
  std::string program_;
};

}  // namespace kl::test
