// The pieces of docs/guide.md and its neighbours that are in no example.  Each is compiled, is run, and is quoted there as
// it stands here.

#include <algorithm>
#include <csignal>
#include <functional>
#include <iostream>
#include <map>
#include <thread>

#include "kl/client.h"
#include "kl/coroutine.h"
#include "kl/embed.h"
#include "kl/logger.h"
#include "kl/post.h"
#include "kl/services.h"
#include "kl/store.h"
#include "kl/table.h"
#include "kl/utilities.h"
#include "kl/wall_timer.h"
#include "leases.kl.h"
#include "sensor.kl.h"
#include "tests/testkit/fixture.h"

namespace {

using namespace std::chrono_literals;
using kl::test::Peer;
using kl::test::TestBus;

kl::message leaseFour() {
  kl::message m;
  m.insert(leases::ID, 4);
  m.insert(leases::HOST, "printer");
  return m;
}

// --- A command that belongs to no table.

class Room : public kl::Commands<sensor::Room> {
  kl::Result<sensor::RoomMeasureReply> cmdMeasure(const kl::message&) override {
    if (!isThere_) return kl::Error{kl::ERROR_FAILED, "the sensor does not answer"};
    return sensor::RoomMeasureReply{.temperature = 215};
  }

 public:
  bool isThere_ = true;
};

TEST(GuidePieces, ACommandOfItsOwn) {
  TestBus bus(sensor::SERVICE);
  Room room;
  bus.add(sensor::HANDLER_ROOM, room);
  Peer asker(bus);
  EXPECT_EQ(asker.ask({37, 0}, sensor::CMD_MEASURE).get(sensor::TEMPERATURE, 0), 215u);
  room.isThere_ = false;
  EXPECT_EQ(kl::getError(asker.ask({37, 0}, sensor::CMD_MEASURE)), "the sensor does not answer (6)");
}

// --- A table by hand.

class Shelf : public kl::Handler {
 public:
  std::map<unsigned int, std::string> all_{{3, "three"}, {5, "five"}};

 private:
  static kl::message object(const std::string& title) {
    kl::message m;
    m.insert(kl::STD_DESCR, title);
    return m;
  }

  kl::message cmdGetAll(const kl::message&, unsigned int start, unsigned int count) override {
    kl::Chunk chunk(count);
    for (auto at = start == kl::BADID ? all_.begin() : all_.lower_bound(start); at != all_.end(); ++at)
      if (!chunk.add(at->first, object(at->second))) break;
    return chunk.reply();
  }
};

TEST(GuidePieces, ATableByHand) {
  TestBus bus(40);
  Shelf shelf;
  bus.add(0, shelf);
  Peer asker(bus);
  EXPECT_EQ(asker.ask({40, 0}, kl::CMD_GETALL).get(kl::STD_OBJS, {}).size(), 2u);
}

// --- Requests.

class Asker : public kl::Handler {
 public:
  void look() {
    leases_.get(4, [this](const kl::Result<leases::Lease>& lease) {
      if (lease) show(*lease);
      else complain(lease.error().describe());  // "std failure: unknown id (4)"
    });
  }
  void release() {
    leases_.releaseAll([this](const kl::Result<leases::LeaseReleaseAllReply>& reply) {
      if (reply) note(std::to_string(reply->released) + " released");
      else complain(reply.error().describe());
    });
  }
  std::string notes_;

 private:
  void show(const leases::Lease& lease) { note(lease.host.value_or("?")); }
  void complain(const std::string& what) { note(what); }
  void note(const std::string& text) { notes_ += text + "; "; }

  kl::Client<leases::Lease> leases_{*this};  // a member of the handler
};

TEST(GuidePieces, RequestsByStructures) {
  TestBus bus(40);
  Asker asker;
  bus.add(0, asker);
  Peer service(bus, leases::SERVICE);
  service.on(kl::CMD_GETOBJ, leaseFour());
  service.on(leases::CMD_RELEASE_ALL, leases::LeaseReleaseAllReply{.released = 2}.toMessage());
  asker.look();
  bus.runUntilIdle();
  asker.release();
  bus.runUntilIdle();
  service.on(kl::CMD_GETOBJ, kl::errorMsg(kl::ERROR_UNKNOWNID, ""));
  asker.look();
  bus.runUntilIdle();
  EXPECT_EQ(asker.notes_, "printer; 2 released; std failure: unknown id (4); ");
}

class Extender : public kl::Handler {
 public:
  explicit Extender(kl::Looper& loop) : loop_(loop) {}

  kl::Task extend(kl::Tasks&, unsigned int id) {  // started by extend(tasks_, 4)
    kl::Result<leases::Lease> lease = co_await leases_.get(id);
    if (!lease) co_return complain(lease.error().describe());
    co_await kl::after(loop_, 500ms);
    lease->expires = later();
    if (const auto set = co_await leases_.set(*lease); !set) complain(set.error().describe());
  }
  kl::Task release(kl::Tasks&) {
    const kl::Result<leases::LeaseReleaseAllReply> reply = co_await leases_.releaseAll();
    complain(reply ? std::to_string(reply->released) + " released" : reply.error().describe());
  }
  void start() { extend(tasks_, 4); }
  void startRelease() { release(tasks_); }
  std::string complaint_;

 private:
  static unsigned long long later() { return 4000000000; }
  void complain(const std::string& what) { complaint_ = what; }

  kl::Looper& loop_;
  kl::TaskClient<leases::Lease> leases_{*this};  // members of the handler
  kl::Tasks tasks_;                              // the last one
};

TEST(GuidePieces, SeveralStepsAsACoroutine) {
  TestBus bus(40);
  Extender extender(*kl::getLooper());
  bus.add(0, extender);
  Peer service(bus, leases::SERVICE);
  service.on(kl::CMD_GETOBJ, leaseFour());
  service.on(kl::CMD_SETOBJ, kl::message());
  extender.start();
  bus.advance(1s);
  const auto asked = service.takeAsked();
  ASSERT_EQ(asked.size(), 2u);
  EXPECT_EQ(asked[1].get(leases::EXPIRES, 0), 4000000000u);
  service.on(leases::CMD_RELEASE_ALL, leases::LeaseReleaseAllReply{.released = 2}.toMessage());
  extender.startRelease();
  bus.runUntilIdle();
  EXPECT_EQ(extender.complaint_, "2 released");
  service.end();
  extender.start();
  bus.runUntilIdle();
  EXPECT_EQ(extender.complaint_, "std failure: broken path (2)");
}

// --- Time, sockets and signals.

class Clockwork : public kl::Looper {
 public:
  explicit Clockwork(int fd) : Looper(kAny, 41) {
    addTimer(this, kl::bind<Clockwork, &Clockwork::onTick>(), kl::inTicks(1s));  // once; or 100
    addSocket(fd, this, kl::bind<Clockwork, &Clockwork::onReadable>(), POLLIN);
    addSighandler(SIGHUP, this, kl::bind<Clockwork, &Clockwork::onHangup>(), true);
  }
  std::string notes_;

 private:
  void onTick() { notes_ += "tick "; }
  void onReadable(int fd, unsigned int) {
    char byte = 0;
    notes_ += ::read(fd, &byte, 1) == 1 ? "byte " : "end ";
  }
  void onHangup(int) { notes_ += "signal "; }
};

struct Pipe {
  Pipe() { EXPECT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0); }
  ~Pipe() {
    for (const int end : ends) ::close(end);
  }
  void writeByte() const { EXPECT_EQ(::write(ends[1], "x", 1), 1); }
  int ends[2] = {-1, -1};
};

TEST(GuidePieces, MemberFunctionsAsCallbacks) {
  const Pipe pipe;
  TestBus bus;
  Clockwork loop(pipe.ends[0]);
  bus.advance(1s);
  pipe.writeByte();
  EXPECT_TRUE(bus.runUntil([&] { return loop.notes_.ends_with("byte "); }));
  ASSERT_EQ(::raise(SIGHUP), 0);
  EXPECT_TRUE(bus.runUntil([&] { return loop.notes_ == "tick byte signal "; })) << loop.notes_;
}

class Lambdas {
 public:
  Lambdas(kl::Looper& loop, int fd, int port) : poll_(loop), input_(loop) {
    poll_.repeat(500ms, [this, port] { look(port); });  // start(3s, ...) calls once
    input_.start(fd, POLLIN, [this](int ready, unsigned int) { take(ready); });
  }
  int looks_ = 0, taken_ = 0;

 private:
  void look(int port) { looks_ += port; }
  void take(int fd) {
    char byte = 0;
    if (::read(fd, &byte, 1) == 1) ++taken_;
  }

  kl::Timer poll_;
  kl::Watch input_;
};

TEST(GuidePieces, LambdasAsCallbacks) {
  const Pipe pipe;
  TestBus bus(40);
  Lambdas lambdas(*kl::getLooper(), pipe.ends[0], 1);
  bus.advance(2s);
  EXPECT_EQ(lambdas.looks_, 4);
  pipe.writeByte();
  EXPECT_TRUE(bus.runUntil([&] { return lambdas.taken_ == 1; }));
}

class Calendar {
 public:
  explicit Calendar(kl::Looper& loop) : alarm_(loop) {
    const auto midnight = std::chrono::ceil<std::chrono::days>(std::chrono::system_clock::now());
    isSet_ = alarm_.start(midnight, [this] { newDay(); });
  }
  bool isSet_ = false;

 private:
  void newDay() {}

  kl::WallTimer alarm_;
};

TEST(GuidePieces, ATimeOfDay) {
  const TestBus bus(40);
  EXPECT_TRUE(Calendar(*kl::getLooper()).isSet_);
}

class Thinker {
 public:
  explicit Thinker(kl::Looper& loop) : inbox_(loop) {}
  void think() {
    worker_ = std::thread([this] {
      const int result = compute();                      // takes its time
      inbox_.post([this, result] { publish(result); });  // runs on the loop's thread
    });
  }
  ~Thinker() { worker_.join(); }
  int published_ = 0;

 private:
  static int compute() { return 42; }
  void publish(int result) { published_ = result; }

  kl::Post inbox_;
  std::thread worker_;
};

TEST(GuidePieces, WorkOfAnotherThread) {
  TestBus bus(40);
  Thinker thinker(*kl::getLooper());
  thinker.think();
  EXPECT_TRUE(bus.runUntil([&] { return thinker.published_ == 42; }));
}

// Another event loop, of which this is all that matters.
struct Foreign {
  void watch(int fd, std::function<void()> call) { fd_ = fd, call_ = std::move(call); }
  void runOnce() const {
    pollfd one{fd_, POLLIN, 0};
    ASSERT_EQ(::poll(&one, 1, 5000), 1);
    call_();
  }
  int fd_ = -1;
  std::function<void()> call_;
};

TEST(GuidePieces, TheLoopInsideAnotherOne) {
  kl::ThinRunner loop;
  kl::Timer timer(loop);
  bool hasFired = false;
  timer.start(0, [&] { hasFired = true; });
  Foreign foreign;
  kl::EmbeddedLoop embedded(loop);  // in the place of loop.run()
  foreign.watch(embedded.descriptor(), [&] { (void)embedded.pass(); });
  foreign.runOnce();
  EXPECT_TRUE(hasFired);
}

// --- Leaving, logging, the disk.

TEST(GuidePieces, ATimeToBeStartedAt) {
  TestBus bus(40);
  (void)bus.takeControls();
  kl::Looper& loop = *kl::getLooper();
  const unsigned int nextExpiry = 4000000000;
  loop.sendCtrl(kl::CTRL_WAKE_AT, nextExpiry);  // the last one counts; 0: only a message starts it
  bus.runUntilIdle();
  const auto controls = bus.takeControls();
  EXPECT_EQ(std::count(controls.begin(), controls.end(), kl::CTRL_WAKE_AT), 1);
}

std::string describeEverything() { return "everything"; }

TEST(GuidePieces, LinesOfALog) {
  const TestBus bus(40);
  const std::string name = "eth0";
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();  // there is no log service
  {
    kl::lstream info({kl::TOPIC_INFO, 300});                // a list of topics
    kl::lstream errors(std::cerr, {kl::TOPIC_ERROR, 300});  // the same lines on the standard error stream
    kl::lstream debug(kl::TOPIC_DEBUG);                     // a single topic

    info << "link " << name << " is up" << std::endl;
    if (!debug.isMuted()) debug << describeEverything() << std::endl;
    errors << "link " << name << " is lost" << std::endl;
  }
  (void)testing::internal::GetCapturedStdout();
  EXPECT_NE(testing::internal::GetCapturedStderr().find("link eth0 is lost"), std::string::npos);
}

TEST(GuidePieces, MessagesOnDisk) {
  const TestBus bus(40);
  const kl::message m = leaseFour();
  std::map<unsigned int, kl::message> restored;
  const auto restore = [&](unsigned int id, const kl::message& object) { restored[id] = object; };
  for (int start = 0; start < 2; ++start) {
    kl::Store routes(kl::underRoot("/kelo/routes/table"), 3);  // makes the folder, loads what is there
    for (const auto& [id, entry] : routes.entries()) restore(id, routes.get(id));

    routes.set(17, m);  // in the files when it returns
    routes.remove(9);
  }
  EXPECT_EQ(restored.at(17), m);
}

TEST(GuidePieces, MessagesThatSurviveALossOfPower) {
  const TestBus bus(40);
  const std::string path = kl::underRoot("/kelo/routes/safe");
  kl::Store routes(path, 3, kl::Store::Durability::kPowerLoss);
  routes.set(1, leaseFour());
  EXPECT_EQ(routes.get(1), leaseFour());
}

}  // namespace
