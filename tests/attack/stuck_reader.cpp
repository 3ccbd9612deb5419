// One of many readers does not read.
//
// A sender tells all of them something, at an even pace.  Messages carry the time and a number: each reader but one
// must get every number in its order.  More is sent than is kept for a reader that does not read, so the loader
// disconnects it in the end.

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "tests/attack/client.h"
#include "tests/attack/scenarios.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/process/child_process.h"

namespace attack {
namespace {

using Clock = std::chrono::steady_clock;
using kl::test::LoaderProcess;

constexpr int kLongestReadMs = 3'600'000;
constexpr char kStuck[] = "reads nothing while its queue is full";
constexpr kl::field<unsigned int> kNumber{0x08000001};
constexpr kl::field<unsigned long long> kSentAt{0x10000002};
constexpr kl::field<std::vector<unsigned char>> kPayload{0x30000003};
constexpr kl::field<bool> kIsLast{0x00000004};

unsigned long long microseconds() {
  const auto now = Clock::now().time_since_epoch();
  return static_cast<unsigned long long>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

struct Seen {
  unsigned long long deliveries;
  unsigned int wrong;     // out of order, or from somebody else
  unsigned int finished;  // readers that saw the last message
  unsigned int p50Us, p99Us;
};

// All readers that read, in one process of their own.
class Readers {
 public:
  explicit Readers(unsigned int count) : peers_(count), next_(count, 0) {
    for (RawPeer& peer : peers_)
      if (peer.connect(kPatienceMs)) (void)peer.registerAs(0);
  }

  Seen read() {
    std::vector<pollfd> entries;
    for (const RawPeer& peer : peers_) entries.push_back({peer.fd(), POLLIN, 0});
    while (seen_.finished < peers_.size() && ::poll(entries.data(), entries.size(), kPatienceMs) > 0)
      for (std::size_t i = 0; i < entries.size(); ++i)
        if (entries[i].revents != 0 && !readFrom(i)) entries[i].fd = -1;
    std::sort(us_.begin(), us_.end());
    if (!us_.empty()) {
      seen_.p50Us = us_[us_.size() / 2];
      seen_.p99Us = us_[us_.size() * 99 / 100];
    }
    return seen_;
  }

 private:
  // False when there is no more to read from this one.
  bool readFrom(std::size_t i) {
    bool any = false;
    while (const auto m = peers_[i].receive(0)) {
      any = true;
      if (m->get(kl::SYS_CMD, 0) == kl::CMD_DISCONNECTED) continue;
      ++seen_.deliveries;
      us_.push_back(static_cast<unsigned int>(microseconds() - m->get(kSentAt, 0)));
      if (m->get(kNumber, 0) != next_[i]++) ++seen_.wrong;
      if (m->get(kIsLast, false)) return ++seen_.finished, false;
    }
    return any || !peers_[i].isDisconnected(0);
  }

  std::vector<RawPeer> peers_;
  std::vector<unsigned int> next_;
  std::vector<unsigned int> us_;
  Seen seen_{};
};

// The result is heard when all of them have read.
kl::test::ChildProcess startReaders(unsigned int count, kl::test::Pipe& result) {
  kl::test::ChildProcess process([&] {
    Readers readers(count);
    result.say('!');
    result.say(readers.read());
  });
  (void)result.hear<char>();
  return process;
}

kl::message news(unsigned int number, unsigned int payloadBytes, bool isLast) {
  kl::message m = kl::test::notification({kl::PATH_ALL, 0});
  m.insert(kNumber, number);
  m.insert(kSentAt, microseconds());
  m.insert(kPayload, std::vector<unsigned char>(payloadBytes, 1));
  if (isLast) m.insert(kIsLast, true);
  return m;
}

}  // namespace

Report stuckReader(unsigned int readers, unsigned int deliveriesASecond, unsigned int payloadBytes,
                   unsigned int seconds) {
  Report report{"One stuck reader among " + std::to_string(readers), {}, {}, 0};
  LoaderProcess loader("[loader]\nqueue_limit = 262144\nstall_seconds = 1\n");
  kl::test::Pipe result;
  const kl::test::ChildProcess process = startReaders(readers - 1, result);
  RawPeer stuck;
  if (stuck.connect(kPatienceMs)) (void)stuck.registerAs(0);
  Client sender;
  const std::size_t memory = loader.memory();
  std::size_t peak = memory;

  const unsigned int rate = std::max(1U, deliveriesASecond / readers);
  const unsigned int count = rate * seconds;
  const auto begin = Clock::now();
  for (unsigned int n = 0; n < count; ++n) {
    const auto due = begin + std::chrono::microseconds(1000000ULL * n / rate);
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(due - Clock::now()).count();
    if (left > 0) (void)::poll(nullptr, 0, static_cast<int>(left));
    report.promise(sender.peer().send(news(n, payloadBytes, n + 1 == count)), "the sender was disconnected");
    if (n % rate == 0) peak = std::max(peak, loader.memory());
  }
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
  const auto heard = result.hear<Seen>(kLongestReadMs);
  report.promise(heard.has_value(), "the readers failed");
  const Seen seen = heard.value_or(Seen{});

  report.figure("deliveries", seen.deliveries);
  report.figure("  a second",
                seen.deliveries * 1000 / static_cast<unsigned long long>(std::max<long long>(1, ms)));
  report.figure("  p50", seen.p50Us, "us");
  report.figure("  p99", seen.p99Us, "us");
  report.figure("loader's memory before", memory / 1024, "KiB");
  report.figure("loader's memory at most", peak / 1024, "KiB");
  report.promise(seen.finished == readers - 1, "a reader did not get everything");
  report.promise(seen.wrong == 0, "a reader got something out of its order");
  report.promise(seen.deliveries == 1ULL * count * (readers - 1), "the number of deliveries is wrong");
  report.promise(loader.logs(kStuck, kPatienceMs) && stuck.isDisconnected(kPatienceMs),
                 "the stuck reader was not disconnected");
  return report;
}

}  // namespace attack
