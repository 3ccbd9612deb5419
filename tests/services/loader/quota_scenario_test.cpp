// An ordinary user can take so much of the loader, and the others do not feel it.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <functional>
#include <set>
#include <vector>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/build/effort.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"
#include "tests/support/process/child_process.h"

namespace {

using kl::test::ChildProcess;
using kl::test::frameOf;
using kl::test::LoaderProcess;
using kl::test::Pipe;
using kl::test::RawPeer;
using kl::test::request;
using Bytes = std::vector<unsigned char>;

constexpr uid_t kStranger = 65534;
constexpr std::size_t kMiB = 1024 * 1024;

bool hasGrownByLessThan(std::size_t mebibytes, const LoaderProcess& loader, std::size_t before) {
  return !kl::test::kIsWeighed || loader.memory() < before + mebibytes * kMiB;
}

// A process of another user that does its part, says how often that worked, and keeps what it has until it is ended.
class Stranger {
 public:
  explicit Stranger(const std::function<unsigned int()>& part, uid_t user = kStranger)
      : process_([&] {
          result_.say(::setuid(user) == 0 ? part() : 0);
          for (;;) ::pause();
        }) {
    const auto count = result_.hear<unsigned int>();
    EXPECT_TRUE(count) << "it has ended";
    count_ = count.value_or(0);
  }

  unsigned int count() const { return count_; }

 private:
  Pipe result_;
  ChildProcess process_;
  unsigned int count_ = 0;
};

// How many of so many peers register; they stay as long as the process.
unsigned int registerMany(unsigned int count) {
  static std::vector<RawPeer> peers;
  unsigned int registered = 0;
  for (unsigned int i = 0; i < count; ++i) {
    RawPeer& peer = peers.emplace_back();
    if (peer.connect() && peer.registerAs(0) != 0) ++registered;
  }
  return registered;
}

class QuotaScenario : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  }
  static bool rootGetsIn() {
    RawPeer peer;
    if (!peer.connect() || peer.registerAs(0) == 0 || !peer.send(request({1}, kl::CMD_GETCOUNT, 1)))
      return false;
    const auto answer = peer.receiveReply(1);
    return answer && !kl::isError(*answer);
  }
};

TEST_F(QuotaScenario, AUserHasSoManyConnectionsAndTheNextAreRefused) {
  const LoaderProcess loader("[quota.user]\nconnections = 8\n");
  const Stranger stranger([] { return registerMany(20); });
  EXPECT_EQ(stranger.count(), 8u);
  EXPECT_TRUE(loader.logs("too many connections of nobody, or of all users; refused"));
  const Stranger other([] { return registerMany(3); }, 65533);
  EXPECT_EQ(other.count(), 3u) << "another user has his own";
  EXPECT_TRUE(rootGetsIn());
}

TEST_F(QuotaScenario, AllUsersTogetherHaveSoManyAndRootHasTheReserve) {
  const LoaderProcess loader("[quota.user]\nconnections = 8\n[quota.all]\nconnections = 10\n");
  const Stranger stranger([] { return registerMany(8); });
  const Stranger other([] { return registerMany(8); }, 65533);
  EXPECT_EQ(stranger.count() + other.count(), 10u);
  EXPECT_TRUE(rootGetsIn());
}

// Every peer asks as long as the loader takes more, and reads nothing.
unsigned int askWithoutReading(unsigned int peersInAll, unsigned int requestsOfEach) {
  static std::vector<RawPeer> peers;
  const Bytes frame = frameOf(request({1}, kl::CMD_GETALL, 1, {7}));
  unsigned int asked = 0;
  for (unsigned int i = 0; i < peersInAll; ++i) {
    RawPeer& peer = peers.emplace_back();
    if (!peer.connect() || peer.registerAs(0) == 0) continue;
    for (unsigned int n = 0; n < requestsOfEach && peer.sendBytes(frame); ++n) ++asked;
  }
  return asked;
}

TEST_F(QuotaScenario, RepliesThatNobodyReadsTakeWhatTheirCallerMayTake) {
  const LoaderProcess loader("[loader]\nstall_seconds = 0\n");
  ASSERT_TRUE(rootGetsIn());
  const std::size_t before = loader.memory();
  const Stranger stranger([] { return askWithoutReading(32, 2000); });
  EXPECT_EQ(stranger.count(), 64000u);
  EXPECT_TRUE(rootGetsIn());
  EXPECT_TRUE(hasGrownByLessThan(6, loader, before));
}

unsigned int beginFrames(unsigned int count) {
  static std::vector<RawPeer> peers;
  Bytes part(60000, 0);
  part[0] = part[1] = 0xff;
  for (unsigned int i = 0; i < count; ++i) {
    RawPeer& peer = peers.emplace_back();
    if (peer.connect() && peer.registerAs(0) != 0) (void)peer.sendBytes(part);
  }
  unsigned int kept = 0;
  for (RawPeer& peer : peers) kept += peer.isDisconnected(20) ? 0 : 1;
  return kept;
}

TEST_F(QuotaScenario, UnfinishedFramesTakeWhatTheirUserMayTakeAndTheNewestIsClosed) {
  const LoaderProcess loader;
  ASSERT_TRUE(rootGetsIn());
  const std::size_t before = loader.memory();
  const Stranger stranger([] { return beginFrames(40); });
  EXPECT_GE(stranger.count(), 4u);
  EXPECT_LE(stranger.count(), 9u);
  EXPECT_TRUE(loader.logs("leaves more unfinished than its user may; disconnected"));
  EXPECT_TRUE(hasGrownByLessThan(3, loader, before));
  EXPECT_TRUE(rootGetsIn());
}

unsigned int registerAndGo(unsigned int rounds) {
  unsigned int count = 0;
  for (unsigned int i = 0; i < rounds; ++i) {
    std::vector<RawPeer> peers(50);
    for (RawPeer& peer : peers) (void)peer.connect();
    for (RawPeer& peer : peers) count += peer.registerAs(0) != 0 ? 1 : 0;
  }
  return count;
}

TEST_F(QuotaScenario, WhoRegistersAndGoesAtOnceCameToNothingAndWaitsAlone) {
  const LoaderProcess loader("[quota]\nregistrations = 1000000\nregistration_burst = 1000000\n");
  constexpr char kHeldUp[] = "nobody: too many connections come to nothing; new ones have to wait";
  for (int i = 0; i < 40 && !loader.logs(kHeldUp, 0); ++i)
    EXPECT_EQ(Stranger([] { return registerAndGo(5); }).count(), 250u) << "they wait, and come in";
  EXPECT_TRUE(loader.logs(kHeldUp));
  EXPECT_TRUE(rootGetsIn());
}

TEST_F(QuotaScenario, WhoIsAboveHisRateWaitsAndRootDoesNot) {
  const LoaderProcess loader("[quota]\nregistrations = 1\nregistration_burst = 5\n");
  const Stranger stranger([] {
    static std::vector<RawPeer> peers(20);
    for (RawPeer& peer : peers)
      if (peer.connect()) (void)peer.send(kl::test::hello(0));
    unsigned int registered = 0;  // they come in by the order of their connections
    while (registered < 5 && peers[registered].receive()) ++registered;
    while (registered < 20 && peers[registered].receive(50)) ++registered;
    return registered;
  });
  EXPECT_GE(stranger.count(), 5u) << "the burst";
  EXPECT_LT(stranger.count(), 20u);
  EXPECT_TRUE(rootGetsIn());
}

TEST_F(QuotaScenario, RootRegistersBesideHundredsOfSilentConnections) {
  const LoaderProcess loader("[quota.user]\nconnections = 300\n");
  const Stranger stranger([] {
    static std::vector<RawPeer> peers(300);
    unsigned int connected = 0;
    for (RawPeer& peer : peers) connected += peer.connect() ? 1 : 0;
    return connected;
  });
  EXPECT_EQ(stranger.count(), 300u);
  EXPECT_TRUE(rootGetsIn());
}

// Subscribes with handlers 1 to `count`; which of them are told of two changes, one after the other.
unsigned int subscribeMany(unsigned int count, unsigned int expected) {
  static RawPeer peer;
  if (!peer.connect() || peer.registerAs(0) == 0) return 0;
  for (unsigned int handler = 1; handler <= count; ++handler) {
    kl::message wish = kl::test::notification({kl::SERVICE_LOADER}, {handler});
    wish.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
    if (!peer.send(wish)) return 0;
  }
  if (!peer.send(request({kl::SERVICE_LOADER}, kl::CMD_GETALL, 9)) || !peer.receiveReply(9)) return 0;
  std::set<unsigned int> told;
  static RawPeer changes[2];  // new rows of the table
  for (RawPeer& change : changes) {
    if (!change.connect() || change.registerAs(0) == 0) return 0;
    for (std::set<unsigned int> now; now.size() < expected;) {
      const auto next = peer.receiveCommand(kl::CMD_NOTIFY);
      if (!next) return 0;
      const std::vector<unsigned int> to = next->get(kl::SYS_TO, {});
      now.insert(to.back());
      told.insert(to.back());
    }
  }
  return static_cast<unsigned int>(told.size());
}

TEST_F(QuotaScenario, SubscriptionsBeyondTheAccountAreRefusedWithALine) {
  const LoaderProcess loader("[quota.user]\nsubscriptions = 4\n");
  const Stranger stranger([] { return subscribeMany(10, 4); });
  EXPECT_EQ(stranger.count(), 4u);
  EXPECT_TRUE(loader.logs("its subscription at loader ("));
  EXPECT_TRUE(loader.logs(" is refused, as its account has too many"));
  EXPECT_EQ(loader.log().find("is refused", loader.log().find("is refused") + 1), std::string::npos)
      << "one line for all of them: " << loader.log();
  EXPECT_TRUE(rootGetsIn());
}

TEST(LoaderMemory, AnAllocationThatFailsEndsItWithOneLine) {
  if (!kl::test::kIsWeighed) GTEST_SKIP() << "sanitizers and emulators have memory beside that of the loader";
  LoaderProcess loader("[quota.reserve]\nqueue_bytes = 1073741824\n[loader]\nqueue_limit = 16777216\n");
  std::vector<RawPeer> peers(60);
  for (RawPeer& peer : peers) {
    ASSERT_TRUE(peer.connect());
    ASSERT_NE(peer.registerAs(0), 0u);
  }
  const rlimit nothing{1, RLIM_INFINITY};
  ASSERT_EQ(::prlimit(loader.pid(), RLIMIT_AS, &nothing, nullptr), 0);
  Bytes part(60000, 0);
  part[0] = part[1] = 0xff;
  for (RawPeer& peer : peers) (void)peer.sendBytes(part);
  EXPECT_EQ(loader.waitForEnd(), 1);
  EXPECT_NE(loader.log().find("kl-loader: ends because no memory is left\n"), std::string::npos)
      << loader.log();
}

}  // namespace
