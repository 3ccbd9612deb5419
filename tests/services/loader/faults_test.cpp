// The loader while the system refuses: it goes on, at most one process loses its connection, and no message between
// the others is lost.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <vector>

#include "kl/conventions.h"
#include "kl/runner.h"
#include "services/loader/loader.h"
#include "tests/support/calls/faults.h"
#include "tests/support/doubles/raw_peer.h"

namespace {

using kl::test::exposed;
using kl::test::FaultRun;
using kl::test::RawPeer;

constexpr unsigned int kRequests = 2;
constexpr unsigned int kPeerSeconds = 15;
constexpr unsigned int kNapMicroseconds = 2000;
constexpr unsigned int kNapsBetweenSignals = 50;
constexpr unsigned int kHaste = 10;  // the loader waits for seconds where a signal was lost
constexpr char kState[] = "/ram/loader-faults";

// The words of the processes beside the loader for it, in memory that they share.
struct Story {
  pid_t teller = 0;
  unsigned int disconnected = 0;  // conversations that had to begin anew
  bool hasLost = false;           // a message, on a connection that stood
  bool isComplete = false;
  bool loaderHasEnded = false;
};

// One process asks and another answers.
class Pair {
 public:
  bool begin() {
    caller_ = RawPeer();
    answerer_ = RawPeer();
    if (!caller_.connect() || !answerer_.connect()) return false;
    answererId_ = answerer_.registerAs(0);
    callerId_ = caller_.registerAs(0);
    return answererId_ != 0 && callerId_ != 0 && caller_.meet(answererId_, answerer_);
  }

  bool ask(unsigned int number) {
    if (!caller_.send(kl::test::request({answererId_, 0}, kl::CMD_GETOBJ, number))) return false;
    const auto request = receiveRequest();
    if (!request || !answerer_.send(kl::test::replyTo(*request))) return false;
    return caller_.receiveReply(number).has_value();
  }

  bool stands() { return !caller_.isDisconnected(0) && !answerer_.isDisconnected(0); }

 private:
  // Nothing when the caller has ended: the loader says so, and no request comes any more.
  std::optional<kl::message> receiveRequest() {
    while (auto m = answerer_.receive()) {
      const unsigned int command = m->get(kl::SYS_CMD, kl::CMD_NOOP);
      if (command == kl::CMD_GETOBJ) return m;
      if (command == kl::CMD_DISCONNECTED && m->get(kl::SYS_FROM, {}) == std::vector{callerId_}) break;
    }
    return {};
  }

  RawPeer caller_;
  RawPeer answerer_;
  unsigned int callerId_ = 0;
  unsigned int answererId_ = 0;
};

void tellOf(Pair& pair, Story& story, const std::function<bool()>& part) {
  while (!part()) {
    if (pair.stands()) story.hasLost = true;
    ++story.disconnected;
    while (!pair.begin() && story.disconnected < 5) ++story.disconnected;
    if (story.disconnected >= 5) return;
  }
}

// Two conversations side by side.
void tell(Story& story) {
  Pair pairs[2];
  for (Pair& pair : pairs) tellOf(pair, story, [&] { return pair.begin(); });
  for (unsigned int number = 1; number <= kRequests; ++number)
    for (Pair& pair : pairs) tellOf(pair, story, [&] { return pair.ask(number); });
  story.isComplete = true;
}

// Tells the loader to end until it does: the first signal may be the one that is lost.
void endLoader(pid_t loader, const Story& story) {
  const volatile bool& hasEnded = story.loaderHasEnded;
  for (unsigned int i = 0;; ++i) {
    if (hasEnded) return;
    if (i % kNapsBetweenSignals == 0) ::kill(loader, SIGTERM);
    ::usleep(kNapMicroseconds);
  }
}

// In a process that is no child of the loader, which would wait for it.
void startTeller(Story& story) {
  const pid_t loader = ::getpid();
  const pid_t middle = ::fork();
  if (middle != 0) {
    (void)::waitpid(middle, nullptr, 0);
    return;
  }
  for (const int stream : {0, 1, 2}) ::close(stream);
  if (::fork() == 0) {
    story.teller = ::getpid();
    (void)::signal(SIGPIPE, SIG_IGN);
    ::alarm(kPeerSeconds);
    tell(story);
    endLoader(loader, story);
  }
  ::_exit(0);
}

loader::Configuration configuration() {
  loader::Configuration result = loader::defaultConfiguration();
  result.stateFolder = kState;
  result.stallSeconds *= kHaste;  // peers are not in a hurry
  result.services.clear();
  loader::ServiceConfiguration service;
  service.id = 40;
  service.name = "sleeper";
  service.command = {"/bin/sleep", "100"};
  result.services.push_back(service);
  return result;
}

void runLoader(Story& story) {
  const loader::Configuration configured = configuration();
  loader::Log log(STDERR_FILENO);
  std::unique_ptr<loader::Loader> loader;
  std::string problem;
  exposed([&] {
    loader = std::make_unique<loader::Loader>(configured, log);
    problem = loader->start();
    if (problem.empty()) loader->run();
  });
  if (!problem.empty()) std::printf("cannot run");
  if (!problem.empty() && story.teller != 0) ::kill(story.teller, SIGKILL);
  for (const int sig : {SIGCHLD, SIGTERM, SIGINT, SIGHUP})
    (void)kl::getRunner()->removeSighandler(sig, true);  // and their pipe
  exposed([&] { loader.reset(); });
  story.loaderHasEnded = true;
}

void playLoader() {
  std::filesystem::remove_all(kState);
  std::filesystem::remove("/ram/kelosock");
  void* const memory =
      ::mmap(nullptr, sizeof(Story), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Story& story = *new (memory) Story;
  (void)::signal(SIGPIPE, SIG_IGN);
  startTeller(story);
  kl::test::hurry(kHaste);
  runLoader(story);
  if (story.isComplete) std::printf("complete, %u disconnected", story.disconnected);
  EXPECT_FALSE(story.hasLost);
}

void expectLines(const std::string& err) {
  std::istringstream lines(err);
  for (std::string line; std::getline(lines, line);)
    EXPECT_TRUE(line.rfind("kl-loader: ", 0) == 0 || line.rfind("STORE: ", 0) == 0) << line;
}

class LoaderFaults : public testing::TestWithParam<const char*> {};

TEST_P(LoaderFaults, AtMostOneProcessLosesItsConnectionAndNobodyAMessage) {
  const auto kinds = kl::test::faultsOf({GetParam()});
  const unsigned int tried = kl::test::forEachFault(kinds, playLoader, [](const FaultRun& run) {
    EXPECT_EQ(run.child.exitStatus, 0) << run.child.err;
    expectLines(run.child.err);
    const bool waits = run.is("accept4", EMFILE) || run.is("accept4", ENOMEM);
    EXPECT_EQ(run.child.err.find("connections have to wait: ") != std::string::npos, waits);
    if (run.child.out.find("cannot run") != std::string::npos) return;
    const bool isWhole = run.child.out.find("complete, 0 disconnected") != std::string::npos ||
                         run.child.out.find("complete, 1 disconnected") != std::string::npos;
    EXPECT_TRUE(isWhole) << run.child.out << run.child.err;
  });
  EXPECT_GE(tried, kinds.size());
}

// Not pipe2 and sigaction: without its signals the loader could not be told to end.
INSTANTIATE_TEST_SUITE_P(Calls, LoaderFaults,
                         testing::Values("read", "write", "send", "poll", "accept4", "socket", "socketpair",
                                         "connect", "bind", "listen", "fcntl", "open", "close", "fsync",
                                         "rename", "unlink", "mkdir", "stat", "chmod", "fork"),
                         [](const auto& call) { return std::string(call.param); });

}  // namespace
