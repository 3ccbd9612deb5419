// Messages that lie about who sent them.
//
// The liar is a process of another user, if this one may become one: then its messages must arrive with that user's name and
// rights.  With the same user what it says about rights is passed on, and only its path is checked.

#include <grp.h>
#include <unistd.h>

#include <random>

#include "tests/attack/client.h"
#include "tests/attack/scenarios.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/process/child_process.h"

namespace attack {
namespace {

using kl::test::LoaderProcess;

constexpr uid_t kNobody = 65534;
constexpr unsigned int kVictim = 902;
constexpr unsigned int kReading = 64;
constexpr unsigned int kFramesAtOnce = 50;
constexpr unsigned int kHonestRequest = 5000;
constexpr unsigned int kFirstPicked = 0x10000;  // the ids that the loader picks

kl::message lie(std::mt19937& random) {
  const auto upTo = [&random](unsigned int most) {
    return std::uniform_int_distribution<unsigned int>(0, most)(random);
  };
  kl::message m = kl::test::request({kVictim, 0}, kl::CMD_SET, upTo(1000));
  if (upTo(1) == 0) m.remove(kl::SYS_REQID);
  if (upTo(3) > 0) m.insert(kl::SYS_FROM, Ids(1 + upTo(5), upTo(1) == 0 ? kl::SERVICE_LOADER : kVictim));
  if (upTo(3) > 0) m.insert(kl::SYS_USER, "root");
  if (upTo(3) > 0) m.insert(kl::SYS_POLICY, 0xffffffff);
  switch (upTo(5)) {
    case 0: m.insert(kl::SYS_CMD, kl::CMD_DISCONNECTED); break;
    case 1: m.insert(kl::SYS_TYPE, kl::TYPE_REPLY); break;  // to nothing: it may not arrive
    default: break;
  }
  return m;
}

// A request whose reply shows that everything before it has arrived: more would not be kept for who reads slowly.
bool synchronise(RawPeer& peer) {
  return peer.send(kl::test::request({kVictim, 0}, kl::CMD_CANCEL, kHonestRequest)) &&
         !kl::isError(
             peer.receiveReply(kHonestRequest, kPatienceMs).value_or(kl::errorMsg(kl::ERROR_TIMEOUT, "")));
}

// Ends with 0 when everything was sent, with 1 otherwise.
[[noreturn]] void runLiar(unsigned int frames, unsigned int seed) {
  (void)::setgroups(0, nullptr);
  (void)::setuid(kNobody);
  RawPeer peer;
  if (!peer.connect(kPatienceMs) || peer.registerAs(0) == 0) ::_exit(1);
  std::mt19937 random(seed);
  for (unsigned int n = 1; n <= frames; ++n)
    if (!peer.send(lie(random)) || (n % kFramesAtOnce == 0 && !synchronise(peer))) ::_exit(1);
  ::_exit(synchronise(peer) ? 0 : 1);
}

struct Arrived {
  unsigned long long frames = 0;
  unsigned int foreignPaths = 0;   // SYS_FROM does not begin with the liar
  unsigned int foreignRights = 0;  // another user, or more rights than that user has
  unsigned int replies = 0;        // that nobody asked for
};

void judge(const kl::message& m, unsigned int liar, bool isOther, Arrived& arrived) {
  ++arrived.frames;
  const Ids from = m.get(kl::SYS_FROM, {});
  if (from.empty() || from[0] != liar) ++arrived.foreignPaths;
  if (kl::isReply(m)) ++arrived.replies;
  if (isOther && (m.get(kl::SYS_USER, "") == "root" || m.get(kl::SYS_USER, "").empty() ||
                  m.get(kl::SYS_POLICY, 0xffffffff) != kReading))
    ++arrived.foreignRights;
}

// The loader's own words.
bool isEndOf(unsigned int liar, const kl::message& m) {
  return m.get(kl::SYS_CMD, 0) == kl::CMD_DISCONNECTED && m.get(kl::SYS_TO, {}).empty() &&
         m.get(kl::SYS_FROM, {}) == Ids{liar};
}

// Until the liar ends.  The first message is not a lie about its sender's number: what comes later is compared with it.
Arrived receiveAll(RawPeer& victim, bool isOther) {
  Arrived arrived;
  unsigned int liar = 0;
  while (const auto m = victim.receive(kPatienceMs)) {
    const Ids from = m->get(kl::SYS_FROM, {});
    if (liar == 0 && !from.empty()) liar = from[0];
    if (isEndOf(liar, *m)) break;
    judge(*m, liar, isOther, arrived);
    if (m->has(kl::SYS_REQID)) (void)victim.send(kl::test::replyTo(*m));
  }
  if (liar < kFirstPicked) ++arrived.foreignPaths;
  return arrived;
}

}  // namespace

Report forgeries(unsigned int frames, unsigned int seed) {
  Report report{"Forged senders, rights and replies, seed " + std::to_string(seed), {}, {}, 0};
  LoaderProcess loader;
  RawPeer victim;
  report.promise(victim.connect(kPatienceMs) && victim.registerAs(kVictim) == kVictim, "no victim");
  const bool isOther = ::geteuid() == 0;
  kl::test::ChildProcess liar([&] { runLiar(frames, seed); });
  const Arrived arrived = receiveAll(victim, isOther);

  report.figure("frames", frames);
  report.figure("  arrived, as what they are", arrived.frames);
  report.figure("  with a foreign path", arrived.foreignPaths);
  if (isOther) report.figure("  with foreign rights", arrived.foreignRights);
  report.figure("  replies that nobody asked for", arrived.replies);
  report.promise(liar.waitForEnd() == 0, "the liar was disconnected");
  report.promise(arrived.frames > frames / 2, "too little arrived");
  report.promise(arrived.foreignPaths == 0, "a path did not begin with its sender");
  report.promise(arrived.foreignRights == 0, "rights were not those of the sender");
  report.promise(arrived.replies == 0, "a reply was delivered that nobody asked for");
  return report;
}

}  // namespace attack
