#include "tools/klctl/output/capture_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/support/process/child.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tools/klctl/output/pcapng.h"

namespace klctl {
namespace {

namespace fs = std::filesystem;

struct CaptureFiles : testing::Test {
  CaptureFiles() {
    char name[] = "/tmp/capture_file_test.XXXXXX";
    folder = ::mkdtemp(name);
    path = folder / "x.pcapng";
  }
  ~CaptureFiles() override { fs::remove_all(folder); }

  std::string content() const {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  fs::path folder;
  fs::path path;
};

}  // namespace

TEST_F(CaptureFiles, AFileIsForItsOwnerAlone) {
  const mode_t before = ::umask(0);
  {
    CaptureFile file(path);
    file.add("one");
    EXPECT_EQ(content(), "");
    file.flush();
    EXPECT_EQ(content(), "one");
  }
  ::umask(before);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(CaptureFiles, NoFileIsOverwritten) {
  std::ofstream(path) << "precious";
  EXPECT_EQ(failureOf([&] { const CaptureFile file(path); }).sentence,
            path.string() + ": is there already, and no file is overwritten");
  fs::create_symlink(path, folder / "link");
  (void)failureOf([&] { const CaptureFile file(folder / "link"); });
  fs::create_symlink(folder / "none", folder / "dangling");
  (void)failureOf([&] { const CaptureFile file(folder / "dangling"); });
  EXPECT_EQ(content(), "precious");
  EXPECT_FALSE(fs::exists(folder / "none"));
}

TEST_F(CaptureFiles, AFileWithoutAByteIsRemoved) {
  { const CaptureFile file(path); }
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(CaptureFiles, APipeIsWrittenToAsItIs) {
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  const common::Descriptor reader(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  {
    CaptureFile file(path);
    file.add("one");
    file.flush();
  }
  char bytes[8];
  EXPECT_EQ(::read(reader.get(), bytes, sizeof bytes), 3);
  EXPECT_TRUE(fs::exists(path));
}

TEST_F(CaptureFiles, MuchIsWrittenWithoutBeingAskedFor) {
  CaptureFile file(path);
  file.add(std::string(CaptureFile::kMostGathered, 'x'));
  EXPECT_EQ(content().size(), CaptureFile::kMostGathered);
}

TEST_F(CaptureFiles, WhereThereIsNoMoreRoomTheFileEndsBehindAWholeBlock) {
  const std::string block = pcapng::interface("netif (32)", 0);
  const auto child = kl::test::runInChild([&] {
    const rlimit limit{5 * block.size() / 2, 5 * block.size() / 2};
    (void)::signal(SIGXFSZ, SIG_IGN);
    (void)::setrlimit(RLIMIT_FSIZE, &limit);
    CaptureFile file(path);
    file.add(block);
    file.flush();
    file.add(block);
    file.add(block);
    const Told told = failureOf([&] { file.flush(); });
    file.add(block);
    file.flush();
    (void)!::write(STDOUT_FILENO, told.sentence.data(), told.sentence.size());
  });
  EXPECT_EQ(child.out, path.string() + ": File too large");
  EXPECT_EQ(content(), block + block);
}

TEST_F(CaptureFiles, AStandardOutputThatDoesNotWaitGetsEverything) {
  constexpr std::size_t kMoreThanAPipeTakes = 4 << 20;
  const auto child = kl::test::runInChild([&] {
    (void)::fcntl(STDOUT_FILENO, F_SETFL, O_WRONLY | O_NONBLOCK);
    CaptureFile file(CaptureFile::kStandardOutput);
    try {
      file.add(std::string(kMoreThanAPipeTakes, 'x'));
      file.flush();
    } catch (const Failure& failure) {
      (void)!::write(STDERR_FILENO, failure.what(), std::strlen(failure.what()));
    }
  });
  EXPECT_EQ(child.out.size(), kMoreThanAPipeTakes);
  EXPECT_EQ(child.err, "");
}

TEST_F(CaptureFiles, AFullDeviceSaysSo) {
  CaptureFile file("/dev/full");
  file.add("one");
  EXPECT_EQ(failureOf([&] { file.flush(); }).sentence, "/dev/full: No space left on device");
  EXPECT_EQ(failureOf([&] { const CaptureFile none(folder / "none/x"); }).sentence,
            (folder / "none/x").string() + ": No such file or directory");
}

}  // namespace klctl
