// Frames that run() holds back while others that were read ahead wait, and when they leave at the latest.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "base/held_output.h"
#include "kl/looper.h"
#include "kl/services.h"
#include "kl/store.h"
#include "kl/utilities.h"
#include "looper/framing.h"
#include "tests/lib/looper/fixture.h"
#include "tests/lib/looper/sends.h"
#include "tests/support/calls/scripted_calls.h"
#include "tests/support/process/child.h"

namespace kl {
namespace {

constexpr int kConnection = 3;
constexpr unsigned int kService = 7;
constexpr field<std::vector<unsigned char>> kFilling{0x30000009};

using Sizes = std::vector<std::size_t>;

message event(unsigned int n) {
  message m = test::notification({kService}, {9});
  m.insert(STD_ID, n);
  return m;
}

message saying(unsigned int n, std::size_t filling = 0) {
  message m = test::to({9});
  m.insert(STD_ID, n);
  if (filling > 0) m.insert(kFilling, std::vector<unsigned char>(filling, static_cast<unsigned char>(n)));
  return m;
}

// The bytes of an answer as the service sends it.
std::size_t sentBytes(const message& m) {
  message sent(m);
  sent.insert(SYS_FROM, {kService});
  return test::frameOf(sent).size();
}

// Handles event n by the n-th of its operations, the first being 1, and ends the loop behind the last event.
class BusyHandler : public Handler {
 public:
  BusyHandler(Looper& looper, unsigned int last) : looper_(looper), last_(last) {}

  void handle(const message& m) override {
    const unsigned int n = m.get(STD_ID, 0);
    if (const auto found = operations.find(n); found != operations.end()) found->second();
    else if (otherwise) otherwise(n);
    if (n == last_ && endsTheLoop) looper_.shutdown();
  }

  void say(unsigned int n, std::size_t filling = 0) {
    message m = saying(n, filling);
    sendMessage(m);
  }

  std::map<unsigned int, std::function<void()>> operations;
  std::function<void(unsigned int)> otherwise;
  bool endsTheLoop = true;

 private:
  Looper& looper_;
  unsigned int last_;
};

void doNothing(void*) {}

// A service to which `events` events come at once.  Its loop has a timer, so it reads the clock, which stands still.
class Busy {
 public:
  explicit Busy(unsigned int events) : service(looper(), events) {
    looper().addTimer(nullptr, doNothing, 100000);
    looper().addHandler(kService, &service);
    for (unsigned int n = 1; n <= events; ++n) net_.loader.send(event(n));
    service.otherwise = [this](unsigned int n) { service.say(n); };
  }
  ~Busy() { looper().removeHandler(kService); }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;

  Looper& looper() { return *net_.looper; }
  test::LoaderDouble& loader() { return net_.loader; }

  // Runs until the last event was handled.  The word that the process runs has been received before.
  void run() {
    beforeFirst();
    looper().run();
  }

  // Has nothing come that was not received?
  bool isSilent() { return loader().isSilent(); }
  void expectAnswers(unsigned int first, unsigned int last) {
    for (unsigned int n = first; n <= last; ++n) EXPECT_EQ(loader().receive().get(STD_ID, 0), n);
  }

  void beforeFirst() {
    const auto first = service.operations[1];
    service.operations[1] = [this, first] {
      EXPECT_EQ(loader().receive().get(SYS_CTRL, 0), CTRL_RUNNING);
      if (first) first();
      else service.say(1);
    };
  }

  test::ScriptedClock clock{100};

 private:
  test::Connected net_;

 public:
  BusyHandler service;
};

// --- What is held

TEST(Holding, WhatIsSentWhileFramesWaitLeavesInOneWriteAndInOrder) {
  Busy busy(3);
  const test::Sends sends(kConnection);
  busy.service.operations[2] = [&] {
    EXPECT_TRUE(busy.isSilent());
    busy.service.say(2);
    EXPECT_TRUE(busy.isSilent());
  };
  busy.service.operations[3] = [&] {
    EXPECT_TRUE(busy.isSilent());
    busy.service.say(3);  // none waits behind this one
    EXPECT_FALSE(busy.isSilent());
  };
  busy.run();
  busy.expectAnswers(1, 3);
  EXPECT_TRUE(busy.isSilent());
  ASSERT_EQ(sends.sizes().size(), 2u);  // the first one says that the process runs
  EXPECT_EQ(sends.sizes()[1], sentBytes(saying(1)) + sentBytes(saying(2)) + sentBytes(saying(3)));
}

TEST(Holding, WhatIsSentWhileNoneWaitsIsWrittenAtOnce) {
  Busy busy(1);
  busy.service.operations[1] = [&] {
    for (const unsigned int n : {1u, 2u}) {
      busy.service.say(n);
      busy.expectAnswers(n, n);
      EXPECT_TRUE(busy.isSilent());
    }
  };
  busy.run();
}

TEST(Holding, OutsideOfRunEachMessageIsWrittenAtOnce) {
  test::Connected net;
  BusyHandler service(*net.looper, 9);
  net.looper->addHandler(kService, &service);
  service.otherwise = [&](unsigned int n) { service.say(n); };
  for (const unsigned int n : {1u, 2u, 3u}) net.loader.send(event(n));
  for (const unsigned int n : {1u, 2u, 3u}) {
    net.wake();
    EXPECT_EQ(net.loader.receive().get(STD_ID, 0), n);
  }
  net.looper->removeHandler(kService);
}

TEST(Holding, NothingIsHeldWhereTheLastThatWaitedIsNotAnswered) {
  Busy busy(3);
  busy.service.endsTheLoop = false;
  busy.beforeFirst();
  busy.service.operations[2] = busy.service.operations[3] = [&] { EXPECT_TRUE(busy.isSilent()); };
  unsigned int polls = 0;
  const test::ScriptedPoll poll([&](const auto& entries) {
    if (++polls <= 3) return entries[0]->revents = POLLIN, 1;
    busy.expectAnswers(1, 1);
    busy.looper().shutdown();
    return 0;
  });
  busy.looper().run();
  EXPECT_EQ(poll.timeouts(), (std::vector<int>{10000, 0, 0, 10000}));
  EXPECT_TRUE(busy.isSilent());
}

TEST(Holding, AFrameThatIsNotWholeYetHoldsNothingBack) {
  test::Connected net;
  BusyHandler service(*net.looper, 2);
  net.looper->addHandler(kService, &service);
  const std::vector<unsigned char> second = test::frameOf(event(2));
  service.operations[1] = [&] {
    EXPECT_EQ(net.loader.receive().get(SYS_CTRL, 0), CTRL_RUNNING);
    service.say(1);
    EXPECT_EQ(net.loader.receive().get(STD_ID, 0), 1u);
    net.loader.sendBytes({second.begin() + 5, second.end()});
  };
  net.loader.send(event(1));
  net.loader.sendBytes({second.begin(), second.begin() + 5});
  net.looper->run();
  net.looper->removeHandler(kService);
}

TEST(Holding, ThirtyTwoFramesAreTheMost) {
  Busy busy(70);
  const test::Sends sends(kConnection);
  busy.run();
  busy.expectAnswers(1, 70);
  const std::size_t one = sentBytes(saying(1));
  EXPECT_EQ(Sizes(sends.sizes().begin() + 1, sends.sizes().end()), (Sizes{32 * one, 32 * one, 6 * one}));
}

TEST(Holding, SixteenKiBAreTheMost) {
  constexpr std::size_t kFill = 5000;
  Busy busy(9);
  const test::Sends sends(kConnection);
  busy.service.operations[1] = [&] { busy.service.say(1, kFill); };
  busy.service.otherwise = [&](unsigned int n) {
    busy.service.say(n, kFill);
    EXPECT_LE(heldOutput.bytes(), kMostHeldBytes);
  };
  busy.run();
  busy.expectAnswers(1, 9);
  const std::size_t one = sentBytes(saying(1, kFill));
  EXPECT_EQ(Sizes(sends.sizes().begin() + 1, sends.sizes().end()), (Sizes{3 * one, 3 * one, 3 * one}));
}

// --- When it leaves: time

TEST(Holding, TheReadingOfTheClockThatShowsAnotherTickIsTheLast) {
  Busy busy(5);
  busy.service.operations[2] = [&] {
    EXPECT_TRUE(busy.isSilent());
    busy.service.say(2);
    busy.clock.advance(1);
  };
  busy.service.operations[3] = [&] {
    busy.expectAnswers(1, 2);
    busy.service.say(3);
  };
  busy.service.operations[4] = [&] {
    EXPECT_TRUE(busy.isSilent());
    busy.clock.advance(1);
    busy.looper().addTimer(nullptr, doNothing, 100000);  // reads the clock, too
    busy.expectAnswers(3, 3);
  };
  busy.run();
  busy.expectAnswers(5, 5);
}

// In a loop without timers, which asks the kernel for no time.
TEST(Holding, WhatASlowOperationSentDoesNotWaitForTheNextOne) {
  Busy busy(3);
  busy.looper().removeTimer(nullptr, doNothing);
  busy.service.operations[1] = [&] {
    busy.service.say(1);
    const std::clock_t begin = std::clock();
    while (std::clock() - begin <
           CLOCKS_PER_SEC / 25) {  // 40 ms are two ticks, whatever the kernel's own are
    }
  };
  busy.service.operations[2] = [&] { busy.expectAnswers(1, 1); };
  busy.run();
  busy.expectAnswers(3, 3);
}

TEST(Holding, ASlowOperationBehindAFastOneHoldsUpNoMoreThanWhatWasSentBefore) {
  Busy busy(4);
  busy.service.operations[2] = [&] {
    EXPECT_TRUE(busy.isSilent());
    busy.clock.advance(500);  // it computes for five seconds
    EXPECT_TRUE(busy.isSilent());
    busy.service.say(2);
  };
  busy.service.operations[3] = [&] { busy.expectAnswers(1, 2); };
  busy.run();
  busy.expectAnswers(4, 4);
}

TEST(Holding, ASlowOperationCanFlushWhatWasSentBefore) {
  Busy busy(3);
  busy.service.operations[2] = [&] {
    busy.looper().flushMessages();
    busy.expectAnswers(1, 1);
    busy.looper().flushMessages();
    EXPECT_TRUE(busy.isSilent());
  };
  busy.run();
  busy.expectAnswers(3, 3);
}

// --- When it leaves: whatever waits

struct Waiting {
  const char* name;
  std::function<void(Looper&, Handler&)> call;
  friend void PrintTo(const Waiting& waiting, std::ostream* out) { *out << waiting.name; }
};

class HoldingBefore : public testing::TestWithParam<Waiting> {};

TEST_P(HoldingBefore, ItLeaves) {
  Busy busy(3);
  busy.service.operations[2] = [&] {
    EXPECT_TRUE(busy.isSilent());
    const test::ScriptedPoll poll([&](const auto&) {
      EXPECT_FALSE(busy.isSilent());
      busy.clock.advance(1);
      return 0;
    });
    GetParam().call(busy.looper(), busy.service);
    EXPECT_FALSE(busy.isSilent());
    busy.expectAnswers(1, 1);
    busy.looper().shutdown();
  };
  busy.run();
}

message askAnother() {
  message m = test::to({24, 0});
  m.insert(SYS_CMD, CMD_GET);
  return m;
}

void exchangeUpTo(Handler& service, int ticks) {
  message m = askAnother();
  EXPECT_TRUE(isError(service.exchangeMessage(m, ticks)));
}

// One pass of a loop of its own.
class OnePass : public ThinRunner {
 public:
  int sleepTime(unsigned int) override { return 10000; }
};

INSTANTIATE_TEST_SUITE_P(
    , HoldingBefore,
    testing::Values(Waiting{"AnExchange", [](Looper&, Handler& service) { exchangeUpTo(service, 1); }},
                    Waiting{"AnExchangeThatTakesWhatHasCome",
                            [](Looper&, Handler& service) { exchangeUpTo(service, 0); }},
                    Waiting{"APulledMessage", [](Looper& looper, Handler&) { (void)looper.getMessage(0); }},
                    Waiting{"AMessageThatIsRead",
                            [](Looper& looper, Handler&) {
                              message m;
                              (void)looper.readMessage(m, 0);
                            }},
                    Waiting{"BytesThatAreRead",
                            [](Looper& looper, Handler&) {
                              unsigned char byte = 0;
                              (void)looper.readRaw(&byte, 0, 0);
                            }},
                    Waiting{"BytesThatAreWritten",
                            [](Looper& looper, Handler&) {
                              const auto frame = test::frameOf(saying(1));
                              looper.writeRaw(frame.data(), 0);
                            }},
                    Waiting{"AnotherLoopThatSleeps", [](Looper&, Handler&) { OnePass().runSocks(0); }},
                    Waiting{"AStoreThatLocks",
                            [](Looper&, Handler&) { Store(underRoot("/kelo/held"), 3).set(1, saying(1)); }},
                    Waiting{"LoadingAModule",
                            [](Looper&, Handler&) { EXPECT_NE(insmod("no_such.ko", ""), 0); }},
                    Waiting{"RemovingAModule", [](Looper&, Handler&) { EXPECT_NE(rmmod("no_such"), 0); }},
                    Waiting{"Shutdown", [](Looper& looper, Handler&) { looper.shutdown(); }}),
    [](const auto& param) { return std::string(param.param.name); });

TEST(Holding, ALoopThatNoLongerServesTheConnectionWritesBeforeItSleeps) {
  Busy busy(3);
  busy.beforeFirst();
  busy.service.operations[2] = [&] {
    busy.service.say(2);
    busy.looper().removeSocket(kConnection);
    EXPECT_TRUE(busy.isSilent());
  };
  unsigned int polls = 0;
  const test::ScriptedPoll poll([&](const auto& entries) {
    ++polls;
    if (!entries.empty()) return entries[0]->revents = POLLIN, 1;
    busy.expectAnswers(1, 2);
    busy.looper().shutdown();
    return 0;
  });
  busy.looper().run();
  EXPECT_EQ(polls, 3u);
  EXPECT_EQ(poll.timeouts(), (std::vector<int>{10000, 0, 10000}));
}

TEST(Holding, AWordThatTheProcessLeavesIsTheLastAndLeavesAtOnce) {
  test::Connected net;
  BusyHandler service(*net.looper, 9);
  net.looper->addHandler(kService, &service);
  service.otherwise = [&](unsigned int n) { service.say(n); };
  net.looper->setupLeave(5);
  net.looper->cmdSubscribe(test::requestTo({34}, CMD_SUBSCRIBE));  // something to keep
  net.loader.send(event(1));
  net.loader.send(test::ctrl(CTRL_LEAVE));
  net.loader.send(event(2));
  net.looper->run();
  EXPECT_TRUE(net.looper->isLeaving());
  EXPECT_EQ(net.loader.receive().get(SYS_CTRL, 0), CTRL_RUNNING);
  EXPECT_EQ(net.loader.receive().get(SYS_CTRL, 0), CTRL_LEAVE_VALUE);
  EXPECT_EQ(net.loader.receive().get(STD_ID, 0), 1u);
  EXPECT_EQ(net.loader.receive().get(SYS_CTRL, 0), CTRL_LEFT);
  EXPECT_TRUE(net.loader.isSilent());
  net.looper->removeHandler(kService);
}

// --- A peer that does not take it

TEST(Holding, AFullConnectionIsWaitedForAndKeepsTheOrder) {
  constexpr std::size_t kFill = 3000;
  Busy busy(30);
  busy.loader().shrinkBuffers();
  busy.service.operations[1] = [&] { busy.service.say(1, kFill); };
  busy.service.otherwise = [&](unsigned int n) { busy.service.say(n, kFill); };
  std::thread reader;
  busy.service.operations[2] = [&] {
    busy.service.say(2, kFill);
    reader = std::thread([&] { busy.expectAnswers(1, 30); });
  };
  busy.run();
  reader.join();
  EXPECT_TRUE(busy.isSilent());
}

constexpr char kLostLine[] = "LOOPER: write_raw write failed: -1, errno: 32\n";

TEST(Holding, ALostLoaderEndsTheProcessWithItsLineWhenItIsWrittenTo) {
  const test::ChildResult result = test::runInChild([] {
    Busy busy(3);
    busy.service.operations[2] = [&] { busy.loader().close(); };
    busy.run();
  });
  EXPECT_EQ(result.err, kLostLine);
  EXPECT_EQ(result.exitStatus, 1);
}

TEST(Holding, ALoaderThatIsLostAtAnExitEndsTheProcessWithItsLine) {
  const test::ChildResult result = test::runInChild([] {
    Busy busy(3);
    busy.service.operations[2] = [&] {
      busy.loader().close();
      std::exit(0);
    };
    busy.run();
  });
  EXPECT_EQ(result.err, kLostLine);
  EXPECT_EQ(result.exitStatus, 1);
}

// --- The ends of a process

// Runs a service in a child: event 1 is answered, then `end` happens while event 3 waits.  The outcome is left at
// the loader's end.
struct ServiceThatEnds {
  explicit ServiceThatEnds(const std::function<void(Looper&)>& end) {
    loader.sendReady();
    result = test::runInChild([&] {
      const test::ScriptedClock clock(100);
      Looper looper(Looper::kInherited, 34);
      BusyHandler service(looper, 3);
      looper.addTimer(nullptr, doNothing, 100000);
      looper.addHandler(kService, &service);
      service.otherwise = [&](unsigned int n) { service.say(n); };
      service.operations[2] = [&] { end(looper); };
      for (const unsigned int n : {1u, 2u, 3u}) loader.send(event(n));
      looper.run();
    });
    for (const unsigned int code : {CTRL_HELLO, CTRL_RUNNING})
      EXPECT_EQ(loader.receive().get(SYS_CTRL, 0), code);
  }

  void expectAnswers(unsigned int first, unsigned int last) const {
    for (unsigned int n = first; n <= last; ++n) EXPECT_EQ(loader.receive().get(STD_ID, 0), n);
    EXPECT_TRUE(loader.isSilent());
  }

  mutable test::LoaderDouble loader;
  test::ChildResult result;
};

TEST(HoldingEnd, AnExitWritesWhatIsHeld) {
  for (void (*leave)(int) :
       {+[](int status) { std::exit(status); }, +[](int status) { std::quick_exit(status); }}) {
    const ServiceThatEnds ending([&](Looper&) { leave(3); });
    EXPECT_EQ(ending.result.exitStatus, 3);
    ending.expectAnswers(1, 1);
  }
}

Looper* lastLooper = nullptr;

void sayFour() {
  message m = saying(4);
  lastLooper->sendMessage(m);
}

TEST(HoldingEnd, WhatIsSentDuringAnExitIsNotHeldAnyMore) {
  const ServiceThatEnds ending([](Looper& looper) {
    lastLooper = &looper;
    message m = saying(2);
    looper.sendMessage(m);
    std::atexit(+[] {
      message three = saying(3);  // in front of what the library does at an exit
      lastLooper->sendMessage(three);
    });
    std::exit(0);
  });
  ending.expectAnswers(1, 3);
}

TEST(HoldingEnd, WhatIsSentBehindTheLibrarysOwnExitIsWrittenAtOnce) {
  test::LoaderDouble loader;
  loader.sendReady();
  const test::ChildResult result = test::runInChild([&] {
    std::atexit(sayFour);  // runs behind what run() made the library do
    const test::ScriptedClock clock(100);
    auto* const looper = new Looper(Looper::kInherited, 34);
    lastLooper = looper;
    looper->addTimer(nullptr, doNothing, 100000);
    auto* const service = new BusyHandler(*looper, 9);
    looper->addHandler(kService, service);
    service->otherwise = [service](unsigned int n) { service->say(n); };
    service->operations[2] = [] { std::exit(0); };
    for (const unsigned int n : {1u, 2u, 3u}) loader.send(event(n));
    looper->run();
  });
  EXPECT_EQ(result.exitStatus, 0);
  for (const unsigned int code : {CTRL_HELLO, CTRL_RUNNING})
    EXPECT_EQ(loader.receive().get(SYS_CTRL, 0), code);
  for (const unsigned int n : {1u, 4u}) EXPECT_EQ(loader.receive().get(STD_ID, 0), n);
  EXPECT_TRUE(loader.isSilent());
}

TEST(HoldingEnd, AKillLosesWhatIsHeldAndNothingElse) {
  const ServiceThatEnds killed([](Looper&) { ::raise(SIGKILL); });
  EXPECT_EQ(killed.result.signal, SIGKILL);
  killed.expectAnswers(1, 0);
  const ServiceThatEnds flushed([](Looper& looper) {
    looper.flushMessages();
    ::raise(SIGKILL);
  });
  EXPECT_EQ(flushed.result.signal, SIGKILL);
  flushed.expectAnswers(1, 1);
}

TEST(HoldingEnd, AKillBehindAnAnswerThatNoneWaitedBehindLosesNothing) {
  test::LoaderDouble loader;
  loader.sendReady();
  const test::ChildResult result = test::runInChild([&] {
    Looper looper(Looper::kInherited, 34);
    BusyHandler service(looper, 9);
    looper.addHandler(kService, &service);
    service.operations[1] = [&] {
      service.say(1);
      ::raise(SIGKILL);
    };
    loader.send(event(1));
    looper.run();
  });
  EXPECT_EQ(result.signal, SIGKILL);
  for (const unsigned int code : {CTRL_HELLO, CTRL_RUNNING})
    EXPECT_EQ(loader.receive().get(SYS_CTRL, 0), code);
  EXPECT_EQ(loader.receive().get(STD_ID, 0), 1u);
}

TEST(HoldingEnd, TheReportOfACrashAttemptsItOnce) {
  const ServiceThatEnds ending([](Looper&) { std::abort(); });
  EXPECT_EQ(ending.result.exitStatus, 1);
  EXPECT_NE(ending.result.out.find("died with signal 6"), std::string::npos);
  ending.expectAnswers(1, 1);
}

TEST(HoldingEnd, TheReportOfACrashDoesNotWaitForALoaderThatDoesNotRead) {
  const ServiceThatEnds ending([](Looper& looper) {
    const int smallest = 1;
    ASSERT_EQ(::setsockopt(kConnection, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest), 0);
    for (const unsigned int n : {2u, 3u, 4u}) {
      message m = saying(n, 5000);
      looper.sendMessage(m);
    }
    std::abort();
  });
  EXPECT_EQ(ending.result.exitStatus, 1);
  EXPECT_EQ(ending.result.signal, 0);
  EXPECT_EQ(ending.result.err, "");
}

TEST(HoldingEnd, AReportThatTheProcessOutlivesLeavesItAsItIs) {
  const ServiceThatEnds ending([](Looper&) {
    ::raise(SIGUSR2);
    std::printf("held: %d", static_cast<int>(heldOutput.isHere()));
  });
  EXPECT_NE(ending.result.out.find("held: 1"), std::string::npos);
  for (const unsigned int n : {1u, 3u}) EXPECT_EQ(ending.loader.receive().get(STD_ID, 0), n);
  EXPECT_TRUE(ending.loader.isSilent());
}

TEST(HoldingEnd, AForkedChildHasNoneOfIt) {
  Busy busy(4);
  busy.service.operations[2] = [&] {
    busy.service.say(2);
    for (const bool flushes : {false, true}) {
      const test::ChildResult result = test::runInChild([&] {
        if (flushes) busy.looper().flushMessages();
        std::exit(0);
      });
      EXPECT_EQ(result.exitStatus, 0);
    }
    EXPECT_TRUE(busy.isSilent());
  };
  busy.service.operations[3] = [&] {
    const test::ChildResult result = test::runInChild([&] {
      busy.service.say(11);
      busy.looper().flushMessages();
    });
    EXPECT_EQ(result.exitStatus, 0);
    busy.expectAnswers(11, 11);
    EXPECT_TRUE(busy.isSilent());
  };
  busy.run();
  for (const unsigned int n : {1u, 2u, 4u}) busy.expectAnswers(n, n);
  EXPECT_TRUE(busy.isSilent());
}

}  // namespace
}  // namespace kl
