#pragma once
// store_files.h: a folder for one test's store, its files as bytes, and the lines that a store prints.

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "kl/message.h"

namespace kl::test {

using Bytes = std::vector<unsigned char>;

// A message that holds one number, and one that holds that many bytes, which depend on `seed`.
message number(unsigned int value);
message filled(unsigned int bytes, unsigned char seed = 1);

// The bytes that the blob of this message takes, its length included.
unsigned int blobBytes(const message& m);

Bytes readFile(const std::string& path);
void writeFile(const std::string& path, const Bytes& bytes);
bool exists(const std::string& path);

// The lines that come to standard output while `body` runs.
template <class Body>
std::string linesOf(Body body) {
  testing::internal::CaptureStdout();
  body();
  return testing::internal::GetCapturedStdout();
}

// Each test has a folder of its own; `path` is the base path of its store.
class StoreFiles : public testing::Test {
 protected:
  StoreFiles();
  ~StoreFiles() override;

  // The bytes of the files, in hexadecimal digits as tests/support/hex.h groups them.
  std::string idx() const;
  std::string dat() const;
  // Of the index, free ones included.
  std::size_t slots() const { return readFile(path + ".idx").size() / 12; }
  Bytes lockBytes() const { return readFile(path + ".lock"); }

  // The suffix of the store's file with that inode, ".?" if it has none.
  std::string suffixOf(unsigned long long inode) const;

  // Whether another process could have the lock now.  Asked in one, because a process does not see its own locks.
  bool isLockFree() const;

  void writeIdx(std::string_view hexDigits) const;
  void writeDat(std::string_view hexDigits) const;

  std::string folder;
  std::string path;
};

}  // namespace kl::test
