#include "tools/klctl/store.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "kl/store.h"
#include "tests/support/hex.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tools/klctl/json.h"

namespace klctl {
namespace {

kl::message number(unsigned int value) {
  kl::message m;
  m.insert_u32(0x08000005, value);
  return m;
}

// A folder with a store of two entries, 17 and 9, and a free slot before them.
class KlctlStore : public testing::Test {
 protected:
  KlctlStore() {
    char name[] = "/tmp/klctl-store-XXXXXX";
    folder_ = ::mkdtemp(name);
    path = folder_ + "/s";
    write(".idx", "ffffffff 09000000 05000000  09000000 0c000000 03000000  11000000 0c000000 05000000");
    write(".dat", "0900 4d320500000907  0c00 4d320500000804030201  0900 4d320500000906 070605");
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

  Dumped run(std::vector<const char*> words) const {
    words.insert(words.begin(), {"klctl", "store"});
    words.insert(words.begin() + 3, path.c_str());
    return runStore(std::get<CommandLine>(parseCommandLine(static_cast<int>(words.size()), words.data())));
  }
  std::string done(const std::vector<const char*>& words) const {
    const Dumped dumped = run(words);
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
  const Dumped dumped = run({"check"});
  EXPECT_EQ(dumped.text,
            "slot 1 (entry 9) has a record that does not fit into it\n"
            "slot 2 (entry 17) has a record that is no message\n");
  EXPECT_EQ(
      dumped.fault,
      path + ": slot 1 (entry 9) has a record that does not fit into it, and 1 more (klctl store check)");
  EXPECT_EQ(Json::parse(run({"check", "--json"}).text).size(), 2u);
}

TEST_F(KlctlStore, LsShowsWhatCanBeReadOfADamagedStore) {
  write(".dat", "0900 4d320500000907  0c00 4d32050000080403");
  const Dumped dumped = run({"ls"});
  EXPECT_NE(dumped.text.find("9       1      9   12        3\n"), std::string::npos);
  EXPECT_NE(dumped.fault.find("the slots of the index do not fill the data file"), std::string::npos);
}

TEST_F(KlctlStore, FilesThatAreNotThereAreNotMade) {
  std::filesystem::remove(path + ".idx");
  for (const char* verb : {"ls", "compact"}) {
    const Told told = failureOf([this, verb] { run({verb}); });
    EXPECT_EQ(told.status, 2) << verb;
    EXPECT_EQ(told.sentence, "cannot read " + path + ".idx") << verb;
  }
  EXPECT_EQ(run({"check"}).text.substr(0, 32), "the index (.idx) cannot be read\n");
  EXPECT_FALSE(std::filesystem::exists(path + ".idx"));
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

// Whoever may look and may not write.
struct Reader {
  Reader() {
    if (::geteuid() == 0) (void)!::seteuid(65534);
  }
  ~Reader() { (void)!::seteuid(::getuid()); }
};

TEST_F(KlctlStore, CompactLeavesFilesAloneThatMayNotBeWritten) {
  for (const char* suffix : {".idx", ".dat"}) ASSERT_EQ(::chmod((path + suffix).c_str(), 0444), 0);
  ASSERT_EQ(::chmod(std::filesystem::path(path).parent_path().c_str(), 0777), 0);
  const std::string data = digits(".dat");
  const Told told = failureOf([this] {
    const Reader reader;
    run({"compact"});
  });
  EXPECT_EQ(told.status, 2);
  EXPECT_EQ(told.sentence, "cannot write " + path + ".idx");
  EXPECT_EQ(digits(".dat"), data);
}

TEST_F(KlctlStore, ItShowsWhatAServiceStores) {
  kl::Store store(path, 3);
  store.set(4, number(44));
  EXPECT_EQ(done({"get", "4"}), "u32:5 44\n");
}

}  // namespace
}  // namespace klctl
