#include "tests/lib/loop/report_reader.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>

namespace kl::test {

std::string reportOf(const std::function<void(ReportText&)>& write) {
  const int fd = ::memfd_create("report", MFD_CLOEXEC);
  EXPECT_GE(fd, 0);
  {
    ReportText out(fd);
    write(out);
  }
  ::lseek(fd, 0, SEEK_SET);
  std::string text;
  std::array<char, 4096> chunk;
  for (ssize_t count = 0; (count = ::read(fd, chunk.data(), chunk.size())) > 0;)
    text.append(chunk.data(), static_cast<std::size_t>(count));
  ::close(fd);
  return text;
}

int fileWith(const std::string& content) {
  const int fd = ::memfd_create("content", MFD_CLOEXEC);
  EXPECT_EQ(::write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
  ::lseek(fd, 0, SEEK_SET);
  return fd;
}

}  // namespace kl::test
