// Services are killed while they are asked.
//
// Every round sends requests to all of them, kills one, and has it started at once.  Each request must end: with the
// reply of the service, or with an error of the loader; and with one of them only.

#include <signal.h>

#include <chrono>
#include <map>
#include <random>

#include "tests/attack/client.h"
#include "tests/attack/scenarios.h"
#include "tests/support/doubles/loader_process.h"

namespace attack {
namespace {

using kl::test::LoaderProcess;

constexpr unsigned int kFirstVictim = 600;
constexpr unsigned int kVictims = 4;
constexpr unsigned int kRequestsARound = 20;
constexpr unsigned int kFirstRequest = 1;

std::string victims() {
  std::string text;
  for (unsigned int i = 0; i < kVictims; ++i)
    text += "[[service]]\nname = \"victim" + std::to_string(i) +
            "\"\nid = " + std::to_string(kFirstVictim + i) +
            "\ncommand = [\"" KL_BIN_DIR "/kl-attack-victim\"]\n";
  return text;
}

// Many requests that are open at the same time.
class Traffic {
 public:
  Traffic() { isThere_ = peer_.connect(kPatienceMs) && peer_.registerAs(0) != 0; }

  void ask(unsigned int service) {
    const unsigned int id = nextId_++;
    kl::message m = kl::test::request({service, 1}, kl::CMD_GET, id);
    m.insert(kl::STD_ID, id);
    if (peer_.send(m)) open_[id] = service;
    else isThere_ = false;
  }

  // Takes what has come; with a patience it waits until nothing is open.
  void take(int patienceMs) {
    while (!open_.empty())
      if (const auto m = peer_.receive(patienceMs)) take(*m);
      else return;
  }

  bool isThere() const { return isThere_; }
  std::size_t open() const { return open_.size(); }
  unsigned int asked() const { return nextId_ - kFirstRequest; }
  unsigned int answered = 0;
  unsigned int broken = 0;
  unsigned int wrong = 0;

 private:
  void take(const kl::message& m) {
    if (!kl::isReply(m)) return;
    const unsigned int id = m.get(kl::SYS_REQID, 0);
    const auto found = open_.find(id);
    if (found == open_.end()) return void(++wrong);
    if (kl::isError(m)) ++broken;
    else if (m.get(kl::STD_ID, 0) == id && m.get(kl::SYS_FROM, {}) == Ids{found->second, 1}) ++answered;
    else ++wrong;
    open_.erase(found);
  }

  RawPeer peer_;
  bool isThere_ = false;
  unsigned int nextId_ = kFirstRequest;
  std::map<unsigned int, unsigned int> open_;  // request -> service
};

bool awaitState(Client& client, unsigned int service, unsigned int state) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
  while (client.row(service).get(kl::SVC_STATE, 0) != state)
    if (std::chrono::steady_clock::now() > end) return false;
  return true;
}

bool crash(Client& client, unsigned int service) {
  if (!awaitState(client, service, kl::SVC_STATE_RUNNING)) return false;
  const auto pid = static_cast<pid_t>(client.row(service).get(kl::SVC_PID, 0));
  if (pid <= 0 || ::kill(pid, SIGKILL) != 0) return false;
  if (!awaitState(client, service, kl::SVC_STATE_DELAYED)) return false;
  client.act(service, kl::SVC_START);
  return true;
}

}  // namespace

Report kills(unsigned int times, unsigned int seed) {
  Report report{"Services killed under traffic, seed " + std::to_string(seed), {}, {}, 0};
  LoaderProcess loader(victims());
  Client client;
  Traffic traffic;
  for (unsigned int i = 0; i < kVictims; ++i)
    (void)awaitState(client, kFirstVictim + i, kl::SVC_STATE_RUNNING);
  const std::size_t memory = loader.memory();
  const std::size_t descriptors = loader.descriptors();
  std::mt19937 random(seed);
  std::uniform_int_distribution<unsigned int> any(0, kVictims - 1);
  unsigned int killed = 0;
  const auto begin = std::chrono::steady_clock::now();
  for (unsigned int n = 0; n < times; ++n) {
    for (unsigned int i = 0; i < kRequestsARound; ++i) traffic.ask(kFirstVictim + any(random));
    killed += crash(client, kFirstVictim + any(random)) ? 1 : 0;
    traffic.take(0);
  }
  traffic.take(kPatienceMs);
  const auto s = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
  bool allRun = true;
  for (unsigned int i = 0; i < kVictims; ++i)
    allRun = awaitState(client, kFirstVictim + i, kl::SVC_STATE_RUNNING) && allRun;

  const auto rows = client.table();
  unsigned long long starts = 0;
  unsigned int open = 0;
  bool allLive = true;
  for (unsigned int i = 0; i < kVictims; ++i) {
    const auto row = rows.find(kFirstVictim + i);
    if (row == rows.end()) continue;
    starts += row->second.get(kl::SVC_STARTS, 0);
    open += row->second.get(kl::SVC_REQUESTS, 0);
    allLive = allLive && ::kill(static_cast<pid_t>(row->second.get(kl::SVC_PID, 0)), 0) == 0;
  }
  report.figure("kills", killed);
  report.figure("time", static_cast<unsigned long long>(s.count()), "s");
  report.figure("requests", traffic.asked());
  report.figure("  answered", traffic.answered);
  report.figure("  ended by the loader", traffic.broken);
  report.figure("  open at the end", traffic.open());
  report.figure("wrong deliveries", traffic.wrong);
  report.figure("loader's memory before", memory / 1024, "KiB");
  report.figure("loader's memory after", loader.memory() / 1024, "KiB");
  report.promise(traffic.isThere(), "the asker was disconnected");
  report.promise(killed == times, "a service could not be killed and started");
  report.promise(traffic.open() == 0 && open == 0, "a request has not ended");
  report.promise(traffic.answered + traffic.broken == traffic.asked(), "a request ended otherwise");
  report.promise(traffic.wrong == 0, "a reply came twice, or from somebody else");
  report.promise(allRun && allLive && rows.size() == kVictims + 3, "the table is wrong");
  report.promise(starts == killed + kVictims, "the starts in the table are wrong");
  report.promise(loader.descriptors() == descriptors, "descriptors were lost");
  return report;
}

}  // namespace attack
