#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iterator>
#include <optional>

#include "kl/utilities.h"
#include "tests/lib/log/fixture.h"
#include "tests/support/process/child.h"
#include "tests/support/process/descriptors.h"

namespace kl {
namespace {

using test::openDescriptors;
using test::say;

// Those that are open now and were not before.
std::vector<int> newDescriptors(const std::vector<int>& before) {
  std::vector<int> more;
  const std::vector<int> now = openDescriptors();
  std::set_difference(now.begin(), now.end(), before.begin(), before.end(), std::back_inserter(more));
  return more;
}

class LogConnection : public test::LogClient {
 protected:
  const std::vector<int> before = openDescriptors();
};

TEST_F(LogConnection, IsMadeByTheConstructor) {
  test::LogService service;
  Logger logger;
  EXPECT_TRUE(service.accept());
  EXPECT_EQ(output(), "");
}

TEST_F(LogConnection, TheProcessHasOneLogger) {
  test::LogService service;
  EXPECT_EQ(Logger::getLogger(), Logger::getLogger());
  EXPECT_TRUE(service.accept());
  EXPECT_FALSE(service.accept());
  Logger::getLogger()->closeConnection();
}

TEST_F(LogConnection, DoesNotBlockAndIsNotInherited) {
  test::LogService service;
  const std::vector<int> others = openDescriptors();
  Logger logger;
  const std::vector<int> own = newDescriptors(others);
  ASSERT_EQ(own.size(), 1u);
  EXPECT_EQ(::fcntl(own[0], F_GETFL) & O_NONBLOCK, O_NONBLOCK);
  EXPECT_EQ(::fcntl(own[0], F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(LogConnection, TheBrokenPipeSignalIsIgnored) {
  (void)std::signal(SIGPIPE, SIG_DFL);
  Logger logger;
  EXPECT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_IGN);
}

TEST_F(LogConnection, ASocketThatNobodyListensAtIsToldAsRefused) {
  std::optional<test::LogService> service(std::in_place);
  const std::string kept = logSocketPath() + ".kept";
  ASSERT_EQ(::rename(logSocketPath().c_str(), kept.c_str()), 0);
  service.reset();
  ASSERT_EQ(::rename(kept.c_str(), logSocketPath().c_str()), 0);
  Logger logger;
  EXPECT_EQ(output(), "could not connect to log: Connection refused\n");
}

TEST_F(LogConnection, TheDescriptorOfAFailedAttemptServesTheNextOne) {
  Logger logger;
  const std::vector<int> kept = newDescriptors(before);
  ASSERT_EQ(kept.size(), 1u);
  logger.connectToLog();
  EXPECT_EQ(newDescriptors(before), kept);
  test::LogService service;
  const std::vector<int> withService = openDescriptors();
  logger.connectToLog();
  EXPECT_EQ(newDescriptors(withService), std::vector<int>{});
  ASSERT_TRUE(service.accept());
  say(logger, logger.registerSource({5}), "a");
  EXPECT_EQ(service.received(), "000a 0000 0000 0001 0005 0005 0001 61");
}

TEST_F(LogConnection, NoDescriptorIsLeftBehindByALogger) {
  { Logger disconnected; }
  EXPECT_EQ(newDescriptors(before), std::vector<int>{});
  test::LogService service;
  const std::vector<int> withService = openDescriptors();
  { Logger connected; }
  EXPECT_EQ(newDescriptors(withService), std::vector<int>{});
  pass();  // and nobody calls it
}

TEST_F(LogConnection, ASocketThatCannotBeMadeIsTold) {
  test::ScriptedSocket calls;
  calls.failSocket(EMFILE);
  Logger logger;
  EXPECT_EQ(output(), "could not connect to log: Too many open files\n");
  EXPECT_EQ(newDescriptors(before), std::vector<int>{});
}

TEST_F(LogConnection, ASocketThatStaysBlockingIsToldAndUsed) {
  test::LogService service;
  test::ScriptedSocket calls;
  calls.failToSetFlags(EPERM);
  Logger logger;
  EXPECT_EQ(output(), "could not set to non blocking: Operation not permitted\n");
  ASSERT_TRUE(service.accept());
  say(logger, logger.registerSource({5}), "");
  EXPECT_EQ(service.received(), "000a 0000 0000 0001 0005 0004 0001");
}

TEST_F(LogConnection, AServiceThatTakesNoConnectionsDoesNotStopTheProcess) {
  test::LogService service(0);
  Logger first;
  EXPECT_EQ(output(), "");
  Logger second;
  EXPECT_EQ(output(), "could not connect to log: Resource temporarily unavailable\n");
}

class LogConnectionEnd : public test::ConnectedLogClient {
 protected:
  LogConnectionEnd() { (void)service.receive(); }

  Source* source = logger.registerSource({5});
  Source* other = logger.registerSource({6});
};

TEST_F(LogConnectionEnd, IsNoticedByTheLoopAndTheNextLineBeginsAnew) {
  service.hangUp();
  pass();
  EXPECT_EQ(output(), "EOF\n");
  EXPECT_FALSE(source->registered);
  say(logger, source, "abc");
  ASSERT_TRUE(service.accept());
  EXPECT_EQ(service.received(), "000a 0000 0000 0001 0005 0007 0001 6162 63");
  EXPECT_FALSE(other->registered);
  say(logger, other, "d");
  EXPECT_EQ(service.received(), "000a 0000 0000 0002 0006 0005 0002 64");
  EXPECT_EQ(output(), "");
}

TEST_F(LogConnectionEnd, IsTheSameWithLinesThatNobodyRead) {
  say(logger, source, "abc");
  service.hangUp();
  pass();
  pass();
  EXPECT_EQ(output(), "EOF\n");
}

TEST_F(LogConnectionEnd, IsNoticedByALineWhichIsLost) {
  service.hangUp();
  say(logger, source, "abc");
  EXPECT_EQ(output(), "writeRaw failed: Broken pipe\nret=-1, len=7\ndopping line\n");
  say(logger, source, "d");
  ASSERT_TRUE(service.accept());
  EXPECT_EQ(service.received(), "000a 0000 0000 0001 0005 0005 0001 64");
  EXPECT_EQ(output(), "");
}

TEST_F(LogConnectionEnd, UnmutesEverySource) {
  source->muted = other->muted = true;
  logger.closeConnection();
  EXPECT_FALSE(source->muted || other->muted);
  EXPECT_FALSE(source->registered || other->registered);
  EXPECT_TRUE(service.isLeft());
}

TEST_F(LogConnectionEnd, ANewConnectionAloneForgetsTheRegistrationsAndKeepsTheMuting) {
  logger.closeConnection();
  source->muted = source->registered = true;
  logger.connectToLog();
  EXPECT_TRUE(source->muted);
  EXPECT_FALSE(source->registered);
}

TEST_F(LogConnectionEnd, LeavesNothingForTheLoopToCall) {
  logger.closeConnection();
  pass();
  EXPECT_EQ(output(), "");
}

}  // namespace
}  // namespace kl
