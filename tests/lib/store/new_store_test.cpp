#include "kl/new_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "kl/store.h"
#include "tests/support/process/child.h"

namespace kl {
namespace {

namespace fs = std::filesystem;

class NewStore : public testing::Test {
 protected:
  NewStore() {
    char name[] = "/tmp/new_store_XXXXXX";
    folder_ = ::mkdtemp(name);
    path_ = folder_ + "/below/table";
  }
  ~NewStore() override { fs::remove_all(folder_); }

  void write(const std::string& suffix, const std::string& content) const {
    fs::create_directories(fs::path(path_).parent_path());
    std::ofstream(path_ + suffix) << content;
  }
  bool has(const std::string& suffix) const { return fs::exists(path_ + suffix); }

  // The lines that the first opening prints, of a store that is made before or not.
  std::string linesOfOpening(bool isMadeBefore) const {
    return test::runInChild([&] { Store(isMadeBefore ? newStore(path_) : path_, 3); }).out;
  }

  std::string folder_;
  std::string path_;
};

TEST_F(NewStore, IsOpenedWithoutALine) {
  EXPECT_EQ(linesOfOpening(true), "");
  EXPECT_TRUE(has(".idx"));
  EXPECT_TRUE(has(".dat"));
}

TEST_F(NewStore, WithoutItTheStoreReportsThatItFindsNone) {
  EXPECT_EQ(linesOfOpening(false), "STORE: openIdx failed\n");
}

TEST_F(NewStore, KeepsWhatIsPutIntoIt) {
  message m;
  m.insert_u32(0x08000005, 7);
  (void)test::runInChild([&] {
    Store store(newStore(path_), 3);
    store.set(1, m);
    store.doFlush();
  });
  const StoreView view(newStore(path_));
  ASSERT_NE(view.find(1), nullptr);
  EXPECT_EQ(view.get(*view.find(1)), m);
}

TEST_F(NewStore, BelongsToItsOwnerAlone) {
  (void)newStore(path_);
  for (const char* const suffix : {".idx", ".dat"}) {
    struct stat file {};
    ASSERT_EQ(::stat((path_ + suffix).c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777, 0600u);
  }
}

TEST_F(NewStore, AnIndexThatIsLostIsStillReported) {
  write(".dat", "something");
  EXPECT_EQ(linesOfOpening(true), "STORE: openIdx failed\n");
}

TEST_F(NewStore, AChangeThatIsUnderWayIsLeftToTheStore) {
  write(".lock", "a journal");
  EXPECT_EQ(newStore(path_), path_);
  EXPECT_FALSE(has(".idx"));
  EXPECT_FALSE(has(".dat"));
}

TEST_F(NewStore, AnEndBetweenTheFilesIsMadeGood) {
  write(".dat", "");
  EXPECT_EQ(linesOfOpening(true), "");
  EXPECT_TRUE(has(".idx"));
}

TEST_F(NewStore, ALinkInThePlaceOfAFileLeadsNowhere) {
  fs::create_directories(fs::path(path_).parent_path());
  fs::create_symlink(folder_ + "/elsewhere", path_ + ".dat");
  (void)newStore(path_);
  EXPECT_FALSE(fs::exists(folder_ + "/elsewhere"));
  EXPECT_FALSE(has(".idx"));
}

TEST_F(NewStore, AFolderThatCannotBeMadeIsTheStoresMatter) {
  std::ofstream(folder_ + "/below") << "a file";
  EXPECT_EQ(newStore(path_), path_);
  EXPECT_FALSE(has(".idx"));
}

}  // namespace
}  // namespace kl
