#include "tools/klctl/verbs/store.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>

#include "kl/store.h"
#include "tests/lib/system/private_mounts.h"
#include "tests/support/hex.h"
#include "tests/support/process/child.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"
#include "tools/klctl/values/json.h"

namespace klctl {
namespace {

using Verbs = std::vector<std::vector<const char*>>;

kl::message number(unsigned int value) {
  kl::message m;
  m.insert_u32(0x08000005, value);
  return m;
}

constexpr char kIndex[] =
    "ffffffff 09000000 05000000  09000000 0c000000 03000000  11000000 0c000000 05000000";
constexpr char kData[] = "0900 4d320500000907  0c00 4d320500000804030201  0900 4d320500000906 070605";
constexpr char kLengthOfSlot1TooLarge[] =
    "0900 4d320500000907  0d00 4d320500000804030201  0900 4d320500000906 070605";

// A folder with a store of two entries, 17 and 9, and a free slot before them.
class KlctlStore : public testing::Test {
 protected:
  KlctlStore() {
    char name[] = "/tmp/klctl-store-XXXXXX";
    folder_ = ::mkdtemp(name);
    path = folder_ + "/s";
    write(".idx", kIndex);
    write(".dat", kData);
  }
  ~KlctlStore() override { std::filesystem::remove_all(folder_); }

  void write(const char* suffix, const char* digits) const {
    const std::vector<unsigned char> bytes = kl::test::bytes(digits);
    std::ofstream file(path + suffix, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }
  std::string digits(const char* suffix) const {
    std::ifstream file(path + suffix, std::ios::binary);
    return kl::test::hex({std::istreambuf_iterator<char>(file), {}});
  }

  // The printed text, and the fault.
  struct Shown {
    std::string text;
    std::string fault;
  };

  std::string perform(RecordedChannels& channels, std::vector<const char*> words) const {
    words.insert(words.begin(), "store");
    words.insert(words.begin() + 2, path.c_str());
    return channels.perform(parsed(words));
  }
  // Runs a verb that prints its results even if the store has a fault.
  Shown run(const std::vector<const char*>& words) const {
    RecordedChannels channels;
    try {
      return {perform(channels, words), ""};
    } catch (const Failure& failure) {
      if (!channels.hasPrinted) throw;
      return {channels.printed, failure.what()};
    }
  }
  std::string done(const std::vector<const char*>& words) const {
    const Shown dumped = run(words);
    EXPECT_EQ(dumped.fault, "");
    return dumped.text;
  }

  std::string path;

 private:
  std::string folder_;
};

TEST_F(KlctlStore, LsShowsEverySlotInItsOrder) {
  EXPECT_EQ(done({"ls"}),
            "id   slot offset size lifetime\n"
            "free    0      0    9 \n"
            "9       1      9   12        3\n"
            "17      2     21   12        5\n");
}

TEST_F(KlctlStore, LsHasTheMessagesInJson) {
  const Json shown = Json::parse(done({"ls", "--json"}));
  EXPECT_EQ(shown["entries"][1].dump(),
            R"({"id":17,"slot":2,"offset":21,"size":12,"lifetime":5,"message":{"u32:5":6}})");
  EXPECT_EQ(shown["free"].dump(), R"([{"slot":0,"offset":0,"size":9}])");
}

TEST_F(KlctlStore, GetPrintsAMessageInEachForm) {
  EXPECT_EQ(done({"get", "17"}), "u32:5 6\n");
  EXPECT_EQ(Json::parse(done({"get", "17", "--json"})).dump(), R"({"u32:5":6})");
  EXPECT_NE(done({"get", "17", "--dump"}).find("6"), std::string::npos);
}

TEST_F(KlctlStore, GetOfAnIdThatIsNotThereIsRefused) {
  const Told told = failureOf([this] { run({"get", "3"}); });
  EXPECT_EQ(told.status, 1);
  EXPECT_EQ(told.sentence, path + " has no entry 3");
}

TEST_F(KlctlStore, CheckOfASoundStorePrintsNothing) {
  EXPECT_EQ(done({"check"}), "");
  EXPECT_EQ(done({"check", "--json"}), "[]\n");
}

TEST_F(KlctlStore, CheckNamesWhatIsWrong) {
  write(".dat", "0900 4d320500000907  0d00 4d320500000804030201  0900 4d32ffffffff06 070605");
  const Shown dumped = run({"check"});
  EXPECT_EQ(dumped.text,
            "slot 1 (entry 9) has a record that does not fit into it\n"
            "slot 2 (entry 17) has a record that is no message\n");
  EXPECT_EQ(dumped.fault, path + ": 2 faults");
  EXPECT_EQ(Json::parse(run({"check", "--json"}).text).size(), 2u);
  EXPECT_EQ(
      run({"ls"}).fault,
      path + ": slot 1 (entry 9) has a record that does not fit into it, and 1 more (klctl store check)");
}

TEST_F(KlctlStore, GetSaysWhatIsWrongWithTheEntryAndNotWithOthers) {
  write(".dat", kLengthOfSlot1TooLarge);
  EXPECT_EQ(done({"get", "17"}), "u32:5 6\n");
  const Shown dumped = run({"get", "9"});
  EXPECT_EQ(dumped.text, "");
  EXPECT_EQ(dumped.fault, path + ": slot 1 (entry 9) has a record that does not fit into it");
}

TEST_F(KlctlStore, AnIdThatIsInTwoSlotsIsNoFaultOfItsEntry) {
  write(".idx", "09000000 09000000 05000000  09000000 0c000000 03000000  11000000 0c000000 05000000");
  EXPECT_EQ(done({"get", "9"}), "u32:5 7\n");
  EXPECT_EQ(done({"get", "17"}), "u32:5 6\n");
  EXPECT_EQ(run({"check"}).text, "slot 1 (entry 9) repeats the id of a slot before it\n");
}

TEST_F(KlctlStore, CheckNamesTheFileThatIsMissing) {
  std::filesystem::remove(path + ".dat");
  EXPECT_EQ(run({"check"}).text, "the data file (.dat) cannot be read\n");
  EXPECT_EQ(run({"check"}).fault, path + ": 1 fault");
  EXPECT_EQ(failureOf([this] { run({"ls"}); }).sentence,
            "cannot read " + path + ".dat: No such file or directory");
}

TEST_F(KlctlStore, GetSaysWhatIsWrongWithTheWholeStore) {
  write(".idx", (kIndex + std::string("0900")).c_str());
  const Shown dumped = run({"get", "17"});
  EXPECT_EQ(dumped.text, "u32:5 6\n");
  EXPECT_EQ(dumped.fault, path + ": the index ends inside a slot record");
}

TEST_F(KlctlStore, LsShowsWhatCanBeReadOfADamagedStore) {
  write(".dat", "0900 4d320500000907  0c00 4d32050000080403");
  const Shown dumped = run({"ls"});
  EXPECT_NE(dumped.text.find("9       1      9   12        3\n"), std::string::npos);
  EXPECT_NE(dumped.fault.find("the slots of the index do not fill the data file"), std::string::npos);
}

TEST_F(KlctlStore, FilesThatAreNotThereAreNotMade) {
  std::filesystem::remove(path + ".idx");
  for (const std::vector<const char*>& words : Verbs{{"ls"}, {"get", "17"}, {"compact"}}) {
    const Told told = failureOf([&] { run(words); });
    EXPECT_EQ(told.status, 2) << words[0];
    EXPECT_EQ(told.sentence, "cannot read " + path + ".idx: No such file or directory") << words[0];
  }
  EXPECT_EQ(run({"check"}).text, "the index (.idx) cannot be read\n");
  EXPECT_FALSE(std::filesystem::exists(path + ".idx"));
  EXPECT_FALSE(std::filesystem::exists(path + ".lock"));
}

TEST_F(KlctlStore, AStoreThatIsNotThereIsNoDamage) {
  path += "x";
  for (const std::vector<const char*>& words : Verbs{{"ls"}, {"get", "17"}, {"compact"}, {"check"}}) {
    const Told told = failureOf([&] { run(words); });
    EXPECT_EQ(told.status, 2) << words[0];
    EXPECT_EQ(told.sentence, "cannot read " + path + ".idx: No such file or directory") << words[0];
  }
}

TEST_F(KlctlStore, AFolderIsNoFile) {
  std::filesystem::remove(path + ".dat");
  std::filesystem::create_directory(path + ".dat");
  EXPECT_EQ(failureOf([this] { run({"ls"}); }).sentence, "cannot read " + path + ".dat: Is a directory");
}

TEST_F(KlctlStore, AFileOfAStoreIsNotItsName) {
  const std::string store = path;
  write(".lock", "");
  for (const std::string suffix : {".idx", ".dat", ".lock"}) {
    path = store + suffix;
    const Told told = failureOf([this] { run({"ls"}); });
    EXPECT_EQ(told.status, 2);
    EXPECT_EQ(told.sentence, path + " is a file of a store, which is named without " + suffix);
  }
}

TEST_F(KlctlStore, AnEmptyStoreHasNothing) {
  write(".idx", "");
  write(".dat", "");
  EXPECT_EQ(done({"ls"}), "");
  EXPECT_EQ(Json::parse(done({"ls", "--json"})).dump(), R"({"entries":[],"free":[]})");
  EXPECT_EQ(done({"check"}), "");
  EXPECT_EQ(done({"compact"}), "");
  EXPECT_EQ(failureOf([this] { run({"get", "1"}); }).sentence, path + " has no entry 1");
}

TEST_F(KlctlStore, CompactGivesTheFreeSlotsBack) {
  EXPECT_EQ(done({"compact"}), "");
  EXPECT_TRUE(Json::parse(done({"ls", "--json"}))["free"].empty());
  EXPECT_EQ(done({"get", "17"}), "u32:5 6\n");
  EXPECT_EQ(done({"check"}), "");
}

TEST_F(KlctlStore, CompactLeavesFilesAloneThatDoNotBelongTogether) {
  write(".dat", "0900");
  const std::string index = digits(".idx");
  const Told told = failureOf([this] { run({"compact"}); });
  EXPECT_EQ(told.status, 1);
  EXPECT_TRUE(told.sentence.ends_with("; nothing was changed")) << told.sentence;
  EXPECT_EQ(digits(".idx"), index);
  EXPECT_EQ(digits(".dat"), "0900");
}

TEST_F(KlctlStore, CompactKeepsWhatIsWrongWithEntriesAndSaysSo) {
  write(".dat", kLengthOfSlot1TooLarge);
  EXPECT_EQ(run({"compact"}).fault,
            "compacted, but " + path + ": slot 0 (entry 9) has a record that does not fit into it");
  EXPECT_EQ(kl::test::bytes(digits(".dat")),
            kl::test::bytes("0d00 4d320500000804030201  0900 4d320500000906 070605"));
}

TEST_F(KlctlStore, ACompactionThatFailsIsARefusal) {
  std::filesystem::create_directory(path + ".dat.new");
  testing::internal::CaptureStdout();
  const Told told = failureOf([this] { run({"compact"}); });
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "STORE: compact: could not open new data file\n");
  EXPECT_EQ(told.status, 1);
  EXPECT_EQ(told.sentence, path + " was not compacted");
  EXPECT_EQ(kl::test::bytes(digits(".dat")), kl::test::bytes(kData));
}

TEST_F(KlctlStore, CompactKeepsTheModesOfTheFiles) {
  ASSERT_EQ(::chmod((path + ".idx").c_str(), 0640), 0);
  ASSERT_EQ(::chmod((path + ".dat").c_str(), 0660), 0);
  EXPECT_EQ(done({"compact"}), "");
  EXPECT_EQ(static_cast<unsigned int>(std::filesystem::status(path + ".idx").permissions()), 0640u);
  EXPECT_EQ(static_cast<unsigned int>(std::filesystem::status(path + ".dat").permissions()), 0660u);
}

constexpr uid_t kNobody = 65534;

// Somebody for whom root makes no difference.
struct Anybody {
  Anybody() {
    if (::geteuid() == 0) (void)!::seteuid(kNobody);
  }
  ~Anybody() { (void)!::seteuid(::getuid()); }
};

// The store of somebody who is not root.
class KlctlStoreOfAnybody : public KlctlStore {
 protected:
  KlctlStoreOfAnybody() {
    write(".lock", "");
    give(kNobody);
    allow(0777, 0600);
  }
  ~KlctlStoreOfAnybody() override { allow(0777, 0600); }  // so that it can be removed
  void give(uid_t owner) {
    if (::geteuid() != 0) return;
    for (const char* suffix : {".idx", ".dat", ".lock"})
      EXPECT_EQ(::chown((path + suffix).c_str(), owner, owner), 0);
  }
  void allow(mode_t folder, mode_t files) {
    EXPECT_EQ(::chmod(std::filesystem::path(path).parent_path().c_str(), folder), 0);
    for (const char* suffix : {".idx", ".dat", ".lock"}) allow(suffix, files);
  }
  void allow(const char* suffix, mode_t mode) { EXPECT_EQ(::chmod((path + suffix).c_str(), mode), 0); }
  Told refused(const char* verb) {
    const std::string data = digits(".dat");
    const Told told = failureOf([this, verb] {
      const Anybody anybody;
      run({verb});
    });
    EXPECT_EQ(told.status, 2);
    EXPECT_EQ(digits(".dat"), data);
    return told;
  }
};

TEST_F(KlctlStoreOfAnybody, FilesThatMayNotBeReadSayWhy) {
  allow(0777, 0200);
  for (const char* verb : {"ls", "check", "compact"})
    EXPECT_EQ(refused(verb).sentence, "cannot read " + path + ".idx: Permission denied");
}

TEST_F(KlctlStoreOfAnybody, CompactLeavesFilesAloneThatMayNotBeWritten) {
  for (const char* suffix : {".idx", ".dat", ".lock"}) {
    allow(0777, 0600);
    allow(suffix, 0444);
    EXPECT_EQ(refused("compact").sentence, "cannot write " + path + suffix + ": Permission denied");
  }
}

TEST_F(KlctlStoreOfAnybody, CompactNeedsItsFolder) {
  allow(0555, 0600);
  EXPECT_EQ(refused("compact").sentence, "cannot write beside " + path + ".idx: Permission denied");
}

// The user who compacts it does not become its owner, or the service that it belongs to could not open it.
TEST_F(KlctlStoreOfAnybody, OnlyRootAndTheOwnerCompactIt) {
  struct stat before {};
  ASSERT_EQ(::stat((path + ".idx").c_str(), &before), 0);
  EXPECT_EQ(done({"compact"}), "");
  for (const char* suffix : {".idx", ".dat", ".lock"}) {
    struct stat after {};
    ASSERT_EQ(::stat((path + suffix).c_str(), &after), 0);
    EXPECT_EQ(after.st_uid, before.st_uid) << suffix;
    EXPECT_EQ(after.st_gid, before.st_gid) << suffix;
  }
  if (::geteuid() != 0) return;  // whoever is not root has no files of others to try
  EXPECT_EQ(::getegid(), ::getgid());
  give(kNobody - 1);
  allow(0777, 0666);
  EXPECT_EQ(refused("compact").sentence, "cannot write " + path + ".idx: it belongs to another user");
}

// A full disk, in a child with mounts of its own: the store would come out of a compaction empty.
TEST_F(KlctlStore, CompactLeavesAStoreAloneThatHasNoRoomForItsNewFiles) {
  if (!kl::test::privateMountsAreAllowed()) GTEST_SKIP() << "needs mounts of its own";
  const kl::test::ChildResult child = kl::test::runInChild([this] {
    kl::test::takePrivateMounts();
    const std::string folder = std::filesystem::path(path).parent_path();
    kl::test::require(::mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=16k") == 0, "mount");
    write(".idx", kIndex);
    write(".dat", kData);
    std::cout << failureOf([this] { run({"compact"}); }).sentence << std::flush;
    kl::test::require(digits(".dat") == kl::test::hex(kl::test::bytes(kData)), "the old data file");
    kl::test::require(std::distance(std::filesystem::directory_iterator(folder), {}) == 2, "nothing else");
  });
  EXPECT_EQ(child.exitStatus, 0) << child.err;
  EXPECT_EQ(child.out, "cannot write beside " + path + ".idx: No space left on device");
}

TEST_F(KlctlStore, ItShowsWhatAServiceStores) {
  kl::Store store(path, 3);
  store.set(4, number(44));
  EXPECT_EQ(done({"get", "4"}), "u32:5 44\n");
}

}  // namespace
}  // namespace klctl
