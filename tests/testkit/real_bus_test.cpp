#include <csignal>
#include <cstdlib>

#include "tests/support/doubles/raw_peer.h"
#include "tests/testkit/fixture.h"

namespace kl::test {
namespace {

constexpr char kConfiguration[] = "[[service]]\nname = \"keeper\"\nid = 34\n";

class RealBusTest : public testing::Test {
 protected:
  RealBusTest() { (void)::setenv("KL_LOADER", KL_BIN_DIR "/kl-loader", 1); }
};

TEST_F(RealBusTest, RunsALoaderOfItsOwn) {
  RealBus bus;
  Looper client(Looper::kConnect);
  EXPECT_GE(client.getLoaderValue(1), 0x10000u);
  message m;
  m.insert(SYS_TO, {SERVICE_LOADER});
  EXPECT_EQ(client.exchangeCmd(m, CMD_GETCOUNT, 500).get(STD_GETALLNO, 0), 2u);
}

TEST_F(RealBusTest, ShowsTheLogAndTheEnd) {
  RealBus bus(kConfiguration);
  EXPECT_GT(bus.pid(), 0);
  bus.signal(SIGTERM);
  EXPECT_EQ(bus.waitForEnd(), 0);
  EXPECT_TRUE(bus.logs("ends because of signal"));
}

TEST_F(RealBusTest, AnEndThatIsNotOrderlyIsAFailure) {
  std::string heard;
  setFailureHandler([&](const std::string& what) { heard += what; });
  {
    RealBus bus;
    bus.signal(SIGKILL);
  }
  setFailureHandler({});
  EXPECT_NE(heard.find("status 137"), std::string::npos) << heard;
}

TEST_F(RealBusTest, ALoaderThatCannotRunIsAFailure) { EXPECT_THROW(RealBus("nonsense = 3\n"), Failure); }

// All bytes that a process at descriptor 3, or at the loader's socket, gets to see of its registration, of a peer's
// request, of a reply, of a path that leads nowhere and of the peer's end.
struct Seen {
  std::vector<std::vector<unsigned char>> frames;
  void take(RawPeer& process) {
    frames.push_back(process.receiveBody().value_or(std::vector<unsigned char>()));
  }
};

message questionTo(const Ids& to) {
  message m = request(to, CMD_GET, 5, {7});
  m.insert(SYS_USER, "somebody");
  return m;
}

Seen seenOnTheRealBus() {
  const RealBus bus(kConfiguration);
  Seen seen;
  RawPeer process;
  EXPECT_TRUE(process.connect());
  EXPECT_TRUE(process.send(hello(kService)));
  seen.take(process);
  {
    RawPeer peer = RawPeer::registered();
    EXPECT_TRUE(peer.send(questionTo({kService, 0})));
    seen.take(process);
    EXPECT_TRUE(process.send(questionTo({peer.ready().get(READY_ID, 0)})));
    const auto asked = peer.receive();
    EXPECT_TRUE(asked && peer.send(replyTo(*asked)));
    seen.take(process);
    EXPECT_TRUE(process.send(questionTo({99, 1})));
    seen.take(process);
  }
  seen.take(process);
  return seen;
}

Seen seenOnTheTestBus() {
  TestBus bus;
  Seen seen;
  RawPeer process(::dup(3));
  EXPECT_TRUE(process.send(hello(kService)));
  EXPECT_EQ(bus.service(), 0u);
  bus.runUntilIdle();
  seen.take(process);
  {
    Peer peer(bus);
    peer.on(CMD_GET, message());
    peer.send(questionTo({kService, 0}));
    bus.runUntilIdle();
    seen.take(process);
    EXPECT_TRUE(process.send(questionTo({peer.id()})));
    bus.runUntilIdle();
    seen.take(process);
    EXPECT_TRUE(process.send(questionTo({99, 1})));
    bus.runUntilIdle();
    seen.take(process);
  }
  bus.runUntilIdle();
  seen.take(process);
  return seen;
}

TEST_F(RealBusTest, DeliversTheSameBytesAsTheTestBus) {
  const Seen real = seenOnTheRealBus();
  const Seen played = seenOnTheTestBus();
  ASSERT_EQ(real.frames.size(), 5u);
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_FALSE(real.frames[i].empty()) << i;
    EXPECT_EQ(real.frames[i], played.frames[i]) << i;
  }
}

}  // namespace
}  // namespace kl::test
