#include "loop/safe_memory.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>

namespace kl {
namespace {

class TwoPages : public ::testing::Test {
 protected:
  // The first page holds bytes, the second cannot be read.
  void SetUp() override {
    pageBytes = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    void* place = ::mmap(nullptr, 2 * pageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(place, MAP_FAILED);
    pages = static_cast<char*>(place);
    std::memset(pages, 'x', pageBytes);
    ASSERT_EQ(::mprotect(pages + pageBytes, pageBytes, PROT_NONE), 0);
  }
  void TearDown() override { ::munmap(pages, 2 * pageBytes); }

  std::uintptr_t endOfFirst() const { return reinterpret_cast<std::uintptr_t>(pages) + pageBytes; }

  std::size_t pageBytes = 0;
  char* pages = nullptr;
  SafeMemory memory;
};

TEST_F(TwoPages, WhatIsThereIsCopied) {
  char bytes[8] = {};
  EXPECT_TRUE(memory.read(endOfFirst() - sizeof bytes, bytes));
  EXPECT_EQ(std::memcmp(bytes, "xxxxxxxx", 8), 0);
}

TEST_F(TwoPages, WhatIsNotThereIsRefused) {
  char byte = 0;
  EXPECT_FALSE(memory.read(endOfFirst(), byte));
  EXPECT_FALSE(memory.read(0, byte));
  EXPECT_FALSE(memory.read(~std::uintptr_t{0}, byte));
}

TEST_F(TwoPages, AReadAcrossTheEndIsRefusedAndLeavesNothingBehind) {
  char bytes[8] = {};
  for (std::uintptr_t beyond = 1; beyond < 8; ++beyond)
    EXPECT_FALSE(memory.read(endOfFirst() - 8 + beyond, bytes)) << beyond;
  const int number = 4711;
  int copy = 0;
  EXPECT_TRUE(memory.read(reinterpret_cast<std::uintptr_t>(&number), copy));
  EXPECT_EQ(copy, 4711);
}

TEST(SafeMemory, WithoutDescriptorsNothingCanBeRead) {
  rlimit limit = {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none = {0, limit.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const SafeMemory memory;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  const int number = 4711;
  int copy = 0;
  EXPECT_FALSE(memory.read(reinterpret_cast<std::uintptr_t>(&number), copy));
}

}  // namespace
}  // namespace kl
