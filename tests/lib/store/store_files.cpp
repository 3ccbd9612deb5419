#include "tests/lib/store/store_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/support/hex.h"
#include "tests/support/process/child.h"

namespace kl::test {

message number(unsigned int value) {
  message m;
  m.insert_u32(0x08000005, value);
  return m;
}

message filled(unsigned int bytes, unsigned char seed) {
  Bytes content(bytes);
  for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<unsigned char>(seed + i * 7);
  message m;
  m.insert_raw(0x30000001, content);
  return m;
}

unsigned int blobBytes(const message& m) {
  Bytes flat;
  m.flatten(flat);
  return static_cast<unsigned int>(flat.size() + 2);
}

Bytes readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

void writeFile(const std::string& path, const Bytes& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

bool exists(const std::string& path) { return std::filesystem::exists(path); }

StoreFiles::StoreFiles() {
  // In memory where that is possible: a store without a Runner syncs its files with every change.
  char inMemory[] = "/dev/shm/kl-store-XXXXXX";
  char onDisk[] = "/tmp/kl-store-XXXXXX";
  const char* made = ::mkdtemp(inMemory);
  folder = made != nullptr ? made : ::mkdtemp(onDisk);
  path = folder + "/s";
}

StoreFiles::~StoreFiles() {
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
}

std::string StoreFiles::idx() const { return hex(readFile(path + ".idx")); }
std::string StoreFiles::dat() const { return hex(readFile(path + ".dat")); }

std::string StoreFiles::suffixOf(unsigned long long inode) const {
  for (const char* suffix : {".idx", ".dat", ".lock"}) {
    struct stat file;
    if (::stat((path + suffix).c_str(), &file) == 0 && file.st_ino == inode) return suffix;
  }
  return ".?";
}

void StoreFiles::writeIdx(std::string_view hexDigits) const { writeFile(path + ".idx", bytes(hexDigits)); }
void StoreFiles::writeDat(std::string_view hexDigits) const { writeFile(path + ".dat", bytes(hexDigits)); }

bool StoreFiles::isLockFree() const {
  const auto result = runInChild([this] {
    const int fd = ::open((path + ".lock").c_str(), O_RDWR);
    struct flock wanted = {};
    wanted.l_type = F_WRLCK;
    wanted.l_whence = SEEK_SET;
    ::_exit(::fcntl(fd, F_SETLK, &wanted) == 0 ? 0 : 1);
  });
  return result.exitStatus == 0;
}

}  // namespace kl::test
