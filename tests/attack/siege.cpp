// An attack in its frame: what the others have before it, beside it and after it.

#include "tests/attack/siege.h"

#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <new>

#include "tests/attack/client.h"
#include "tests/support/build/effort.h"

namespace attack {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uid_t kNobody = 65534;
constexpr uid_t kAnotherUser = 1;
constexpr int kLookMs = 5;
constexpr int kComingMs = 5000;
constexpr rlim_t kUsualDescriptors = 1024;
constexpr rlim_t kManyDescriptors = 8192;

int msSince(Clock::time_point begin) {
  return static_cast<int>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count());
}

void become(uid_t user) {
  (void)::setgroups(0, nullptr);
  (void)::setgid(user);
  if (user != 0 && ::setuid(user) != 0) ::_exit(2);
}

// The deeds of another process cannot be awaited but by looking.
bool comesAbout(const std::function<bool()>& condition) {
  const auto begin = Clock::now();
  while (!condition()) {
    if (msSince(begin) > kPatienceMs) return false;
    (void)::poll(nullptr, 0, kLookMs);
  }
  return true;
}

// The most that the process ever had in memory at the same time.
std::size_t mostResidentBytes(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string word; status >> word;) {
    if (word != "VmHWM:") continue;
    std::size_t kib = 0;
    status >> kib;
    return kib * 1024;
  }
  return 0;
}

// The limit that a login or an init gives: the loader has to raise its own limit, if it wants to.
const std::string& withUsualDescriptors(const std::string& configuration) {
  rlimit limit{};
  (void)::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min(limit.rlim_max, kUsualDescriptors);
  (void)::setrlimit(RLIMIT_NOFILE, &limit);
  return configuration;
}

std::string times(unsigned int value, unsigned int quiet) {
  const unsigned int tenths = value * 10 / std::max(1U, quiet);
  return std::to_string(value) + " us, " + std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) +
         " x";
}

}  // namespace

void stay() {
  for (;;) ::pause();
}

void comeWith(unsigned int connections, Deeds& deeds) {
  std::vector<RawPeer> peers(connections);
  for (RawPeer& peer : peers) {
    if (peer.connect(kPatienceMs) && peer.registerAs(0) != 0) ++deeds.done;
    else ++deeds.refused;
  }
  ++deeds.inPlace;
  stay();
}

void takeManyDescriptors() {
  const rlimit many{kManyDescriptors, kManyDescriptors};
  (void)::setrlimit(RLIMIT_NOFILE, &many);
}

int registrationMs(uid_t user) {
  kl::test::Pipe answer;
  const kl::test::ChildProcess process([&] {
    become(user);
    const auto begin = Clock::now();
    RawPeer peer;
    const bool isIn = peer.connect(kComingMs) && peer.registerAs(0) != 0;
    answer.say(isIn ? msSince(begin) : -1);
  });
  return answer.hear<int>().value_or(-1);
}

Attackers::Attackers() {
  void* const memory =
      ::mmap(nullptr, sizeof(Deeds), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  deeds_ = new (memory) Deeds{};
}

Attackers::~Attackers() {
  kill();
  (void)::munmap(deeds_, sizeof(Deeds));
}

void Attackers::start(unsigned int processes, const Life& life) {
  for (unsigned int number = 0; number < processes; ++number) {
    processes_.emplace_back([&] {
      takeManyDescriptors();
      become(kNobody);
      life(number, *deeds_);
    });
  }
  (void)comesAbout([this] { return areInPlace(); });
}

bool Attackers::areInPlace() const {
  const auto ended = std::count_if(processes_.begin(), processes_.end(),
                                   [](const kl::test::ChildProcess& process) { return process.hasEnded(); });
  return deeds_->inPlace + static_cast<std::size_t>(ended) >= processes_.size();
}

void Attackers::kill() {
  for (const kl::test::ChildProcess& process : processes_) process.signal(SIGKILL);
  processes_.clear();
}

Siege::Siege(const std::string& title, Pace pace, unsigned int mostDeeds, const std::string& configuration,
             std::size_t mostDescriptors)
    : pace_(pace),
      mostDeeds_(mostDeeds),
      loader_(withUsualDescriptors(configuration), mostDescriptors),
      report_{title, {}, {}, 0} {}

Report Siege::run(unsigned int attackers, const Attackers::Life& life,
                  const std::function<void(Report&)>& meanwhile) {
  quiet_ = bystanders_.takeQuiet(pace_.quietMs);
  noteRoundTrips("quiet", quiet_);
  descriptors_ = loader_.descriptors() + moreDescriptors_;
  report_.figure("loader's memory before", loader_.memory() / 1024, "KiB");
  Attackers army;
  army.start(attackers, life);
  (void)bystanders_.take();
  const unsigned long long doneBefore = army.deeds().done;
  const auto begin = Clock::now();
  letOthersRegister();
  if (meanwhile) meanwhile(report_);
  (void)::poll(nullptr, 0, std::max(0, pace_.attackMs - msSince(begin)));
  const Bystanders::Figures attacked = bystanders_.take();
  noteRoundTrips("under attack", attacked);
  noteShare(army.deeds().done - doneBefore, attacked.roundTrips, attackers);
  army.kill();
  (void)::poll(nullptr, 0, pace_.quietMs);
  noteRoundTrips("when the attackers end", bystanders_.take());
  judge(army.deeds());
  return report_;
}

void Siege::letOthersRegister() {
  const int root = registrationMs(0);
  const int other = registrationMs(kAnotherUser);
  report_.promise(root >= 0, "root was kept out");
  report_.promise(other >= 0, "another user was kept out");
  if (root >= 0) report_.figure("root registers in", static_cast<unsigned int>(root), "ms");
  if (other >= 0) report_.figure("another user registers in", static_cast<unsigned int>(other), "ms");
}

void Siege::noteRoundTrips(const std::string& when, const Bystanders::Figures& figures) {
  report_.figure("round trips " + when, figures.roundTrips);
  report_.figures.emplace_back("  p50", times(figures.p50Us, quiet_.p50Us));
  report_.figures.emplace_back("  p99", times(figures.p99Us, quiet_.p99Us));
  report_.figures.emplace_back("  worst", times(figures.worstUs, quiet_.worstUs));
  report_.figure("  ends that they were told of", figures.ends);
  report_.promise(figures.ends == 0, "the others were told of ends that are not their business, " + when);
  report_.promise(figures.lost == 0, "a request of the others was lost, " + when);
  report_.promise(figures.roundTrips > 0, "the others had no round trip, " + when);
  report_.promise(figures.wrong == 0, "something was delivered that nobody sent");
}

// Of one attacker, while the others have one round trip: a count, whatever the machine does meanwhile.
void Siege::noteShare(unsigned long long done, unsigned int roundTrips, unsigned int attackers) {
  const unsigned long long share = done / std::max(1U, roundTrips) / std::max(1U, attackers);
  report_.figure("deeds of one in a round trip", share);
  report_.promise(mostDeeds_ == 0 || share <= mostDeeds_, "an attacker got more than its share of work");
}

void Siege::judge(const Deeds& deeds) {
  deeds_ = deeds.done;
  report_.figure("deeds of the attackers", deeds_);
  report_.figure("  refused", deeds.refused);
  const std::size_t most = mostResidentBytes(loader_.pid());
  report_.figure("loader's memory after", loader_.memory() / 1024, "KiB");
  report_.figure("loader at most, resident", most / 1024, "KiB");
  report_.promise(!kl::test::kIsWeighed || most <= kMostLoaderBytes, "the loader took more than 32 MiB");
  const bool areBack = comesAbout([this] { return loader_.descriptors() <= descriptors_; });
  report_.promise(areBack, "descriptors were lost");
  loader_.signal(SIGTERM);
  report_.promise(loader_.waitForEnd(kPatienceMs) == 0, "the loader did not end in order");
}

}  // namespace attack
