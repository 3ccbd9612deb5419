#include "services/loader/crashes/elf_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "services/common/descriptor.h"

namespace {

using loader::ElfFile;

// The first 4 KiB of this program, which have its tables.
std::string head() {
  std::ifstream in("/proc/self/exe", std::ios::binary);
  std::string text(4096, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  return text;
}

std::optional<ElfFile> readFrom(const std::string& bytes) {
  std::FILE* const file = std::tmpfile();
  (void)std::fwrite(bytes.data(), 1, bytes.size(), file);
  (void)std::fflush(file);
  auto elf = ElfFile::read(::fileno(file));
  (void)std::fclose(file);
  return elf;
}

TEST(ElfFileTest, AProgramHasABuildIdAndKnowsWhereItsCodeWasLinked) {
  const common::Descriptor self(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
  const auto elf = ElfFile::read(self.get());
  ASSERT_TRUE(elf);
  EXPECT_GE(elf->buildId().size(), 16u);
  EXPECT_EQ(elf->buildId().find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_FALSE(elf->linkAddress(1ULL << 60));
}

TEST(ElfFileTest, EveryBeginningOfOneIsReadOrRefused) {
  const std::string whole = head();
  for (std::size_t size = 0; size < whole.size(); size += size < 1024 ? 1 : 64)
    (void)readFrom(whole.substr(0, size));
  EXPECT_FALSE(readFrom(whole.substr(0, 3)));
  EXPECT_TRUE(readFrom(whole));
}

TEST(ElfFileTest, DamageInItsTablesIsNoHarm) {
  for (std::size_t at = 4; at < 1024; ++at) {
    std::string damaged = head();
    damaged[at] = static_cast<char>(0xff);
    (void)readFrom(damaged);
  }
  EXPECT_FALSE(readFrom("#!/bin/sh\n"));
}

}  // namespace
