// A service and its loader while the system refuses: either the process ends with the fixed line and status 1, or no
// message is lost, doubled, garbled or out of order.

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <memory>

#include "tests/faults/process.h"

namespace kl {
namespace {

using test::errnoText;
using test::exposed;
using test::fatalLine;
using test::FaultRun;
using test::LoaderDouble;
using test::Process;

constexpr unsigned int kLast = 6;

message filled(unsigned int number) {
  message m;
  m.insert(STD_ID, number);
  m.insert_raw(0x30000001, std::vector<unsigned char>(number * 900, static_cast<unsigned char>(number)));
  return m;
}

message requestTo7(unsigned int number) {
  message m = filled(number);
  m.insert(SYS_TO, {7});
  m.insert(SYS_FROM, {9});
  m.insert(SYS_CMD, CMD_GETOBJ);
  m.insert(SYS_REQID, number);
  m.insert(SYS_REPLYEXP, true);
  return m;
}

// Answers each request with what it holds, and ends the loop after the last.
class Echo : public Handler {
 public:
  explicit Echo(Looper& looper) : looper_(looper) {}
  void handle(const message& m) override {
    const unsigned int number = m.get(STD_ID, 0);
    message answer = filled(number);
    replyMessage(m, answer);
    if (number == kLast) looper_.shutdown();
  }

 private:
  Looper& looper_;
};

void expectOnly(const message& m, unsigned int number) {
  EXPECT_EQ(m.get(STD_ID, 0), number);
  EXPECT_TRUE(m.get_raw(0x30000001, {}) == filled(number).get_raw(0x30000001, {}));
}

// The same, and nothing on standard output.
void expectNothingOrFatal(const FaultRun& run) {
  test::expectWholeOrFatal(run);
  EXPECT_EQ(run.child.out, "");
}

TEST(LooperFaults, RequestsAreAnsweredInOrderOrTheProcessEnds) {
  const unsigned int tried = test::forEachFault(
      test::faultsWithout({"fcntl"}),
      [] {
        Process process;
        Echo echo(*process.looper);
        process.looper->addHandler(7, &echo);
        for (unsigned int number = 1; number <= kLast; ++number) process.loader.send(requestTo7(number));
        exposed([&] { process.looper->run(); });
        EXPECT_EQ(process.loader.receive().get(SYS_CTRL, 0), 6U);
        for (unsigned int number = 1; number < kLast; ++number) expectOnly(process.loader.receive(), number);
      },
      expectNothingOrFatal);
  EXPECT_GE(tried, 30U);
}

TEST(LooperFaults, AnExchangeGetsItsReplyAndKeepsTheOthers) {
  const unsigned int tried = test::forEachFault(
      test::faultsWithout({"fcntl"}),
      [] {
        Process process;
        Echo echo(*process.looper);
        Handler asker;
        process.looper->addHandler(7, &echo);
        process.looper->addHandler(8, &asker);
        process.loader.send(requestTo7(1));
        process.loader.send(requestTo7(2));
        message reply = filled(5);
        reply.insert(SYS_TO, {8});
        reply.insert(SYS_FROM, {24, 0});
        reply.insert(SYS_TYPE, TYPE_REPLY);
        reply.insert(SYS_REQID, 0);
        process.loader.send(reply);
        message m = filled(3);
        m.insert(SYS_TO, {24, 0});
        message answer;
        exposed([&] {
          answer = asker.exchangeMessage(m, 500);
          process.looper->dispatchQueue();
        });
        expectOnly(answer, 5);
        expectOnly(process.loader.receive(), 3);
        expectOnly(process.loader.receive(), 1);
        expectOnly(process.loader.receive(), 2);
      },
      expectNothingOrFatal);
  EXPECT_GE(tried, 15U);
}

TEST(LooperFaults, AnExchangeWithoutReplyEndsAtItsTimeout) {
  const unsigned int tried = test::forEachFault(
      test::faultsWithout({"fcntl"}),
      [] {
        Process process;
        Handler asker;
        process.looper->addHandler(8, &asker);
        message m = filled(3);
        m.insert(SYS_TO, {24, 0});
        message answer;
        exposed([&] { answer = asker.exchangeMessage(m, 2); });
        unsigned int code = ERROR_OK;
        EXPECT_TRUE(isError(answer, &code));
        EXPECT_EQ(code, ERROR_TIMEOUT);
      },
      expectNothingOrFatal);
  EXPECT_GE(tried, 10U);
}

TEST(LooperFaults, ALostLoaderEndsTheProcessWithItsLine) {
  const unsigned int tried = test::forEachFault(
      test::faultsWithout({"fcntl"}),
      [] {
        Process process;
        process.loader.close();
        exposed([&] { process.looper->run(); });
      },
      [](const FaultRun& run) {
        EXPECT_EQ(run.child.exitStatus, 1);
        const std::string lost = "LOOPER: write_raw write failed: -1, errno: " + errnoText(EPIPE) + "\n";
        EXPECT_TRUE(run.child.err == lost || run.child.err == fatalLine(run.kind)) << run.child.err;
      });
  EXPECT_GE(tried, 10U);
}

TEST(LooperFaults, ADescriptorThatStaysBlockingIsToldAndTheProcessRegisters) {
  const unsigned int tried = test::forEachFault(
      test::faultsOf({"fcntl"}), [] { const Process process; },
      [](const FaultRun& run) {
        EXPECT_EQ(run.child.exitStatus, 0);
        const std::string line = std::string("fcntl: ") + std::strerror(run.kind.outcome) + "\n";
        EXPECT_EQ(run.child.err, run.n == 2 ? line : "");
      });
  EXPECT_GE(tried, 4U);
}

// A loader in a process of its own, which confirms one registration and ends with this process.
void startLoader(test::ListeningLoader& listener) {
  if (::fork() != 0) return;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (const int stream : {0, 1, 2}) ::close(stream);
  LoaderDouble loader(listener.accept());
  loader.sendReady();
  ::pause();
}

std::string connectionLine(const FaultRun& run) {
  if (run.is("socket", EMFILE)) return "socket failed (errno=" + errnoText(EMFILE) + ")\n";
  if (run.is("connect", EAGAIN)) return "connect failed (errno=" + errnoText(EAGAIN) + ")\n";
  if (run.is("connect", ECONNREFUSED)) return "connect failed (errno=" + errnoText(ECONNREFUSED) + ")\n";
  return fatalLine(run.kind);
}

TEST(LooperFaults, AConnectionThatCannotBeMadeEndsTheProcessWithItsLine) {
  const unsigned int tried = test::forEachFault(
      test::faultsWithout({"fcntl"}),
      [] {
        ::unlink("/ram/kelosock");  // of a process that ended before
        test::ListeningLoader listener;
        startLoader(listener);
        std::unique_ptr<Looper> looper;
        exposed([&] { looper = std::make_unique<Looper>(Looper::kConnect, 34U); });
        looper.reset();
      },
      [](const FaultRun& run) {
        const std::string line = connectionLine(run);
        EXPECT_EQ(run.child.exitStatus, line.empty() ? 0 : 1) << run.child.err;
        EXPECT_EQ(run.child.err, line);
      });
  EXPECT_GE(tried, 8U);
}

}  // namespace
}  // namespace kl
