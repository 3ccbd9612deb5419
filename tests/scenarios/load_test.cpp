// Many subscribers and many changes.

#include <iostream>

#include "tests/scenarios/fixture.h"

namespace scenarios {
namespace {

constexpr unsigned int kProcesses = 9;  // with several subscribers each
constexpr unsigned int kInEach = 11;
constexpr unsigned int kSubscribers = kProcesses * kInEach + 1;
constexpr unsigned int kFirstService = 600;
constexpr unsigned int kStoppedService = 700;

constexpr unsigned int kObjects = 1000;
constexpr unsigned int kChanges = 10000;
// One round sends less to a process than the half of a queue that one sender fills, so that nobody who reads, however
// slowly, loses anything; all rounds together are more than that even for the process with one subscriber.
constexpr unsigned int kChangesInRound = 200;
constexpr std::size_t kPayloadBytes = 160;

std::string subscribers(unsigned int service, unsigned int count) {
  return "[[service]]\nname = \"subscribers" + std::to_string(service) +
         "\"\nid = " + std::to_string(service) + "\ncommand = [\"" KL_BIN_DIR "/kl-test-subscribers\", \"" +
         std::to_string(count) + "\"]\n";
}

std::string allServices() {
  std::string text = tableService() + subscribers(kStoppedService, 1);
  for (unsigned int i = 0; i < kProcesses; ++i) text += subscribers(kFirstService + i, kInEach);
  return text;
}

class Load : public testing::Test {
 protected:
  void awaitSubscriptions() {
    while (driver_.ask(kTable, kl::CMD_GETCOUNT).get(table::SUBSCRIPTIONS, 0) != kSubscribers) {
    }
  }

  void stopReading() {
    const auto pid = static_cast<pid_t>(driver_.row(kStoppedService).get(kl::SVC_PID, 0));
    ASSERT_EQ(::kill(pid, SIGSTOP), 0);
  }

  void change(unsigned int count) {
    kl::message m;
    m.insert(table::FIRST, kObjects);
    m.insert(table::COUNT, count);
    m.insert(table::PAYLOAD, std::vector<unsigned char>(kPayloadBytes, 7));
    EXPECT_FALSE(kl::isError(driver_.ask(kTable, kl::CMD_START, m)));
  }

  // An answer comes behind everything that a process was sent before.
  void awaitReaders() {
    for (unsigned int i = 0; i < kProcesses; ++i)
      EXPECT_FALSE(kl::isError(driver_.ask({kFirstService + i}, kl::CMD_NOOP)));
  }

  unsigned long long sent() { return driver_.row(table::kService).get(kl::SVC_MESSAGES_OUT, 0); }

  LoaderProcess loader_{allServices()};
  Driver driver_;
};

}  // namespace

TEST_F(Load, AHundredSubscribersEndWithTheRightStateAndOneThatStopsHarmsNobody) {
  awaitSubscriptions();
  stopReading();
  const auto before = sent();
  unsigned int replies = 0;
  for (unsigned int done = 0; done < kChanges; done += kChangesInRound, ++replies) {
    change(kChangesInRound);
    awaitReaders();
  }
  const auto notifications = sent() - before - replies;

  const auto digest = driver_.ask(kTable, kl::CMD_GETCOUNT).get(table::DIGEST, 0);
  unsigned long long delivered = 0;
  for (unsigned int i = 0; i < kProcesses; ++i)
    for (unsigned int handler = 1; handler <= kInEach; ++handler) {
      const kl::message state = driver_.ask({kFirstService + i, handler}, kl::CMD_GETCOUNT);
      EXPECT_EQ(state.get(table::DIGEST, 0), digest) << kFirstService + i << "/" << handler;
      EXPECT_EQ(state.get(table::NOTIFICATIONS, 0), notifications);
      delivered += state.get(table::NOTIFICATIONS, 0);
      EXPECT_EQ(driver_.row(kFirstService + i).get(kl::SVC_DROPS, 1), 0u);
    }
  EXPECT_GT(driver_.row(kStoppedService).get(kl::SVC_DROPS, 0), 0u) << "it was sent more than is kept for it";

  const unsigned long long alone = 1ULL * kChanges * kSubscribers;
  std::cout << kChanges << " changes of " << kObjects << " objects, " << kSubscribers
            << " subscribers: each told alone " << alone << " messages; sent " << notifications
            << ", delivered " << delivered << " to the " << kSubscribers - 1 << " that read; saved "
            << alone - notifications << " sendings and " << 1ULL * kChanges * (kSubscribers - 1) - delivered
            << " deliveries\n";
  EXPECT_LT(notifications, kChanges / 20);
}

}  // namespace scenarios
