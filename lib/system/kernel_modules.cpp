// Loading and removing kernel modules, by the kernel's two system calls and nothing between.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>

#include "base/descriptor.h"
#include "base/held_output.h"
#include "kl/utilities.h"

namespace {

// A file in memory for as long as this lives; `data` is null where it could not be had.
class MappedFile {
 public:
  explicit MappedFile(const std::string& path) {
    const kl::Descriptor file(path.c_str(), O_RDONLY);
    struct stat facts {};
    if (file && ::fstat(file.fd(), &facts) == 0) map(file.fd(), static_cast<std::size_t>(facts.st_size));
  }
  ~MappedFile() {
    if (data_ != nullptr) (void)::munmap(data_, bytes_);
  }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  void* data() const { return data_; }
  std::size_t bytes() const { return bytes_; }

 private:
  void map(int fd, std::size_t bytes) {
    void* const start = ::mmap(nullptr, bytes, PROT_READ, MAP_SHARED, fd, 0);
    if (start == MAP_FAILED) return;
    data_ = start;
    bytes_ = bytes;
  }

  void* data_ = nullptr;
  std::size_t bytes_ = 0;
};

std::string moduleFolder() {
  utsname kernel{};
  (void)::uname(&kernel);
  return std::string("/lib/modules/") + kernel.release + "/";
}

// "/lib/modules/x/my-driver.ko" and "my_driver" are the same module.
std::string moduleName(const std::string& path) {
  std::string name = path.substr(path.rfind('/') + 1);
  name.erase(std::min(name.find('.'), name.size()));
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

constexpr unsigned int kRemovalFlags = 128;  // O_EXCL, which kernels of today ignore

}  // namespace

int insmod(const std::string& name, const std::string& parameters) {
  kl::heldOutput.write();
  const MappedFile image(moduleFolder() + name);
  if (image.data() == nullptr) return -1;
  return static_cast<int>(::syscall(SYS_init_module, image.data(), image.bytes(), parameters.c_str()));
}

int rmmod(const std::string& name) {
  kl::heldOutput.write();
  return static_cast<int>(::syscall(SYS_delete_module, moduleName(name).c_str(), kRemovalFlags));
}
