#include "tools/klctl/ask/session.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/un.h>
#include <unistd.h>

#include "kl/conventions.h"
#include "kl/utilities.h"
#include "tests/support/process/child.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/scripted_loader.h"

namespace klctl {
namespace {

using kl::test::LoaderDouble;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kShort(1000);

kl::message requestTo(unsigned int service) {
  kl::message m;
  m.insert(kl::SYS_TO, {service});
  m.insert(kl::SYS_CMD, kl::CMD_GET);
  return m;
}

kl::message replyTo(const kl::message& request) {
  unsigned int id = kl::BADID;
  EXPECT_TRUE(kl::getRequestID(request, &id));
  kl::message reply;
  kl::setType(reply, kl::TYPE_REPLY);
  kl::setRequestID(reply, id);
  return reply;
}

constexpr milliseconds kMoment(100);

kl::message numbered(unsigned int n) {
  kl::message m;
  m.insert(kl::STD_ID, n);
  return m;
}

// Gives what comes to it.
class Passing : public kl::Handler {
 public:
  explicit Passing(const Emit& emit) : emit_(emit) {}
  void handle(const kl::message& m) override { emit_(m); }

 private:
  const Emit& emit_;
};

void confirmAndWait(LoaderDouble& connection) {
  confirm(connection);
  awaitEnd(connection);
}

void waitForEver(JobLooper&, const Emit&) {
  while (true) ::pause();
}

bool isReadable(int fd) {
  pollfd watched{fd, POLLIN, 0};
  return ::poll(&watched, 1, 0) == 1;
}

}  // namespace

TEST(Session, WithoutALoaderThereIsNone) {
  const Told told = failureOf([] { const Session session(kAmple); });
  EXPECT_EQ(told.status, 4);
  EXPECT_EQ(told.sentence, "no loader runs at " + kl::loaderSocketPath() + ": No such file or directory");
}

TEST(Session, ASocketThatNobodyListensAtIsNoLoader) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  kl::loaderSocketPath().copy(address.sun_path, sizeof address.sun_path - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ::close(fd);
  const Told told = failureOf([] { const Session session(kAmple); });
  ::unlink(kl::loaderSocketPath().c_str());
  EXPECT_EQ(told.status, 4);
  EXPECT_EQ(told.sentence, "no loader runs at " + kl::loaderSocketPath() + ": Connection refused");
}

TEST(Session, ALoaderWithAFullBacklogIsNoLoader) {
  const kl::test::ListeningLoader listening;
  std::vector<int> waiting;
  const auto connects = [&] {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    kl::loaderSocketPath().copy(address.sun_path, sizeof address.sun_path - 1);
    waiting.push_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    return ::connect(waiting.back(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  };
  while (connects()) {
  }
  const Told told = failureOf([] { const Session session(kShort); });
  for (const int fd : waiting) ::close(fd);
  EXPECT_EQ(told.status, 4);
  EXPECT_EQ(told.sentence, "the loader at " + kl::loaderSocketPath() + " accepts no connections");
}

TEST(Session, RegistersAsANobodyWhomTheLoaderNames) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    const kl::message hello = connection.receive();
    EXPECT_EQ(hello.get(kl::SYS_CTRL, 0), 5u);
    EXPECT_EQ(hello.get_u32_array(0x88000001), std::vector<unsigned int>(12, 0));
    connection.sendReady();
    awaitEnd(connection);
  });
  const Session session(kAmple);
}

TEST(Session, ALoaderThatNeverConfirmsIsNoLoader) {
  const ScriptedLoader loader([](LoaderDouble& connection) { awaitEnd(connection); });
  const Told told = failureOf([] { const Session session(kShort); });
  EXPECT_EQ(told.status, 4);
  EXPECT_EQ(told.sentence, "the loader did not confirm the registration within 1 s");
}

TEST(Session, ALoaderThatHangsUpRefuses) {
  const ScriptedLoader loader([](LoaderDouble& connection) { (void)connection.receive(); });
  const Told told = failureOf([] { const Session session(kAmple); });
  EXPECT_EQ(told.status, 4);
  EXPECT_EQ(told.sentence, "the loader refused the registration");
}

TEST(Session, AConfirmationThatIsNoneIsARefusal) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    kl::message m;
    m.insert(kl::SYS_CTRL, 9);
    connection.send(m);
    awaitEnd(connection);
  });
  const Told told = failureOf([] { const Session session(kAmple); });
  EXPECT_EQ(told.status, 4);
  EXPECT_EQ(told.sentence, "the loader refused the registration");
}

TEST(Session, AnExchangeBringsTheReply) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    for (unsigned int i = 1; i <= 3; ++i) {
      const kl::message request = connection.receive();
      EXPECT_EQ(request.get(kl::SYS_TO, {}), std::vector<unsigned int>{i});
      EXPECT_EQ(request.get(kl::SYS_CMD, 0), kl::CMD_GET);
      EXPECT_TRUE(kl::isReplyExpected(request));
      kl::message reply = replyTo(request);
      reply.insert(kl::STD_ID, i);
      connection.send(reply);
    }
  });
  Session session(kAmple);
  for (unsigned int i = 1; i <= 3; ++i) EXPECT_EQ(session.exchange(requestTo(i)).get(kl::STD_ID, 0), i);
}

TEST(Session, WhatIsNoReplyIsPassedOver) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    const kl::message request = connection.receive();
    kl::message notice;
    notice.insert(kl::SYS_CMD, kl::CMD_DISCONNECTED);
    notice.insert(kl::SYS_FROM, {65536});
    for (int i = 0; i < 200; ++i) connection.send(notice);  // more than a queue holds
    kl::message stranger = replyTo(request);
    kl::setRequestID(stranger, 4711);
    connection.send(stranger);
    connection.send(replyTo(request));
    awaitEnd(connection);
  });
  Session session(kAmple);
  EXPECT_TRUE(kl::isReply(session.exchange(requestTo(32))));
}

TEST(Session, NoReplyInTimeIsATimeout) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    awaitEnd(connection);
  });
  const Told told = failureOf([] {
    Session session(kShort);
    (void)session.exchange(requestTo(32));
  });
  EXPECT_EQ(told.status, 3);
  EXPECT_EQ(told.sentence, "no reply within 1 s");
}

TEST(Session, ATimeoutThatTheServiceReportsIsItsReply) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    kl::message reply = replyTo(connection.receive());
    reply.merge(kl::errorMsg(kl::ERROR_TIMEOUT, ""));
    connection.send(reply);
    awaitEnd(connection);
  });
  Session session(kAmple);
  EXPECT_TRUE(kl::isError(session.exchange(requestTo(32))));
}

TEST(Session, AFrameThatNeverEndsIsATimeout) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    (void)connection.receive();
    connection.sendBytes({200, 0, 0, 0, 'M', '2'});
    awaitEnd(connection);
  });
  const Told told = failureOf([] {
    Session session(kShort);
    (void)session.exchange(requestTo(32));
  });
  EXPECT_EQ(told.status, 3);
  EXPECT_EQ(told.sentence, "the loader does not read, or it began a frame that it did not end");
}

TEST(Session, ALoaderThatGoesAwayIsNoLoader) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    (void)connection.receive();
  });
  const Told told = failureOf([] {
    Session session(kAmple);
    (void)session.exchange(requestTo(32));
  });
  EXPECT_EQ(told.status, 4);
  EXPECT_EQ(told.sentence, "the loader went away");
}

TEST(Session, ARequestThatNoFrameCarriesIsNotSent) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    connection.send(replyTo(connection.receive()));
    awaitEnd(connection);
  });
  Session session(kAmple);
  kl::message request = requestTo(32);
  request.insert_string(0x20000001, std::string(65600, 'x'));
  const Told told = failureOf([&] { (void)session.exchange(request); });
  EXPECT_EQ(told.status, 2);
  EXPECT_TRUE(told.sentence.starts_with("the request is too big: 656")) << told.sentence;
  EXPECT_TRUE(kl::isReply(session.exchange(requestTo(32))));  // and the session goes on
}

TEST(Session, TheLargestRequestThatIsNotRefusedArrives) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    connection.send(replyTo(connection.receive()));
    awaitEnd(connection);
  });
  Session session(kAmple);
  std::size_t length = 65535;
  for (bool fits = false; !fits; --length) {
    kl::message request = requestTo(32);
    request.insert_string(0x20000001, std::string(length, 'x'));
    try {
      EXPECT_TRUE(kl::isReply(session.exchange(request)));
      fits = true;
    } catch (const Failure& failure) {
      ASSERT_EQ(failure.status(), Status::kUsage);
    }
  }
  EXPECT_GT(length, 65400u);
}

TEST(Session, SendingReturnsWhenTheLoaderHasTakenTheMessage) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    const kl::message m = connection.receive();
    EXPECT_EQ(m.get(kl::SYS_TO, {}), std::vector<unsigned int>{32});
    EXPECT_FALSE(kl::isReplyExpected(m));
    EXPECT_FALSE(kl::getRequestID(m));
    const kl::message question = connection.receive();
    EXPECT_EQ(question.get(kl::SYS_TO, {}), std::vector<unsigned int>{1});
    connection.send(replyTo(question));
    awaitEnd(connection);
  });
  Session session(kAmple);
  session.send(requestTo(32));
}

TEST(Interrupt, ASignalMakesTheDescriptorReadableAndNothingElse) {
  const Interrupt interrupt;
  EXPECT_FALSE(isReadable(interrupt.fd()));
  ASSERT_EQ(::raise(SIGINT), 0);
  EXPECT_TRUE(isReadable(interrupt.fd()));
  EXPECT_TRUE(isReadable(interrupt.fd()));
}

TEST(Interrupt, AfterwardsASignalEndsTheProcessAgain) {
  const auto result = kl::test::runInChild([] {
    {
      const Interrupt interrupt;
      (void)::raise(SIGINT);
    }
    (void)!::write(STDOUT_FILENO, "alive", 5);
    (void)::raise(SIGINT);
    (void)!::write(STDOUT_FILENO, " still", 6);
  });
  EXPECT_EQ(result.out, "alive");
  EXPECT_EQ(result.signal, SIGINT);
}

TEST(StreamSession, WithoutALoaderThereIsNone) {
  const Told told = failureOf([] { const StreamSession stream(kAmple, waitForEver); });
  EXPECT_EQ(told.status, 4);
  EXPECT_EQ(told.sentence, "no loader runs at " + kl::loaderSocketPath() + ": No such file or directory");
}

TEST(StreamSession, BringsWhatTheJobGivesAndItsEnd) {
  const ScriptedLoader loader(confirmAndWait);
  StreamSession stream(kAmple, [](JobLooper&, const Emit& emit) {
    emit(numbered(1));
    emit(kl::message());
  });
  kl::message m;
  EXPECT_EQ(stream.next(m), StreamSession::kArrived);
  EXPECT_EQ(m, numbered(1));
  EXPECT_EQ(stream.next(m), StreamSession::kArrived);
  EXPECT_EQ(m, kl::message());
  EXPECT_EQ(stream.next(m), StreamSession::kEnded);
}

TEST(StreamSession, BringsWhatComesToAHandlerOfTheJob) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    for (unsigned int i = 1; i <= 1000; ++i) {  // more than any queue holds
      kl::message m = numbered(i);
      m.insert(kl::SYS_TO, {7});
      connection.send(m);
    }
    awaitEnd(connection);
  });
  StreamSession stream(kAmple, [](JobLooper& looper, const Emit& emit) {
    Passing passing(emit);
    looper.addHandler(7, &passing);
    looper.run();
  });
  kl::message m;
  for (unsigned int i = 1; i <= 1000; ++i) {
    ASSERT_EQ(stream.next(m), StreamSession::kArrived);
    ASSERT_EQ(m.get(kl::STD_ID, 0), i);
  }
}

TEST(StreamSession, AJobMayFilterAndEndItsLoop) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    connection.send(numbered(5));
    awaitEnd(connection);
  });
  StreamSession stream(kAmple, [](JobLooper& looper, const Emit& emit) {
    looper.filter = [&](const kl::message& m) {
      emit(m);
      looper.shutdown();
      return true;
    };
    looper.run();
  });
  kl::message m;
  EXPECT_EQ(stream.next(m), StreamSession::kArrived);
  EXPECT_EQ(m.get(kl::STD_ID, 0), 5u);
  EXPECT_EQ(stream.next(m), StreamSession::kEnded);
}

TEST(StreamSession, ALoaderThatGoesAwayIsNoLoader) {
  const ScriptedLoader loader([](LoaderDouble& connection) { confirm(connection); });
  StreamSession stream(kAmple, [](JobLooper& looper, const Emit&) { looper.run(); });
  const Told told = failureOf([&] {
    kl::message m;
    (void)stream.next(m);
  });
  EXPECT_EQ(told.status, 4);
  EXPECT_EQ(told.sentence, "the loader went away");
}

TEST(StreamSession, NothingUntilTheDeadlineIsLateAndNotTheEnd) {
  const ScriptedLoader loader(confirmAndWait);
  StreamSession stream(kAmple, waitForEver);
  kl::message m;
  EXPECT_EQ(stream.next(m, steady_clock::now() + kMoment), StreamSession::kLate);
  EXPECT_EQ(stream.next(m, steady_clock::now()), StreamSession::kLate);
}

TEST(StreamSession, AnInterruptIsToldAndReachesOnlyKlctl) {
  const Interrupt interrupt;
  const ScriptedLoader loader(confirmAndWait);
  StreamSession stream(kAmple, [](JobLooper&, const Emit& emit) {
    (void)::raise(SIGINT);
    emit(numbered(1));
    while (true) ::pause();
  });
  kl::message m;
  EXPECT_EQ(stream.next(m, {}, interrupt.fd()), StreamSession::kArrived);
  ASSERT_EQ(::raise(SIGINT), 0);
  EXPECT_EQ(stream.next(m, {}, interrupt.fd()), StreamSession::kInterrupted);
}

}  // namespace klctl
