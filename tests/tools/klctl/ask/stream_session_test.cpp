#include "tools/klctl/ask/stream_session.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "kl/conventions.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/scripted_loader.h"
#include "tools/klctl/ask/interrupt.h"

namespace klctl {
namespace {

using kl::test::LoaderDouble;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kMoment(100);

kl::message numbered(unsigned int n) {
  kl::message m;
  m.insert(kl::STD_ID, n);
  return m;
}

// Gives what comes to it.
class Passing : public kl::Handler {
 public:
  explicit Passing(const Give& give) : give_(give) {}
  void handle(const kl::message& m) override { give_(m); }

 private:
  const Give& give_;
};

void confirmAndWait(LoaderDouble& connection) {
  confirm(connection);
  awaitEnd(connection);
}

void waitForEver(JobLooper&, const Give&) {
  while (true) ::pause();
}

}  // namespace

TEST(StreamSession, WithoutALoaderThereIsNone) {
  const Told told = failureOf([] { const StreamSession stream(kAmple, waitForEver); });
  EXPECT_EQ(told.status, 4);
  EXPECT_EQ(told.sentence, "no loader runs at /ram/kelosock: No such file or directory");
}

TEST(StreamSession, BringsWhatTheJobGivesAndItsEnd) {
  const ScriptedLoader loader(confirmAndWait);
  StreamSession stream(kAmple, [](JobLooper&, const Give& give) {
    give(numbered(1));
    give(kl::message());
  });
  kl::message m;
  EXPECT_EQ(stream.next(m), StreamSession::kMessage);
  EXPECT_EQ(m, numbered(1));
  EXPECT_EQ(stream.next(m), StreamSession::kMessage);
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
  StreamSession stream(kAmple, [](JobLooper& looper, const Give& give) {
    Passing passing(give);
    looper.addHandler(7, &passing);
    looper.run();
  });
  kl::message m;
  for (unsigned int i = 1; i <= 1000; ++i) {
    ASSERT_EQ(stream.next(m), StreamSession::kMessage);
    ASSERT_EQ(m.get(kl::STD_ID, 0), i);
  }
}

TEST(StreamSession, AJobMayFilterAndEndItsLoop) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    connection.send(numbered(5));
    awaitEnd(connection);
  });
  StreamSession stream(kAmple, [](JobLooper& looper, const Give& give) {
    looper.filter = [&](const kl::message& m) {
      give(m);
      looper.shutdown();
      return true;
    };
    looper.run();
  });
  kl::message m;
  EXPECT_EQ(stream.next(m), StreamSession::kMessage);
  EXPECT_EQ(m.get(kl::STD_ID, 0), 5u);
  EXPECT_EQ(stream.next(m), StreamSession::kEnded);
}

TEST(StreamSession, ALoaderThatGoesAwayIsNoLoader) {
  const ScriptedLoader loader([](LoaderDouble& connection) { confirm(connection); });
  StreamSession stream(kAmple, [](JobLooper& looper, const Give&) { looper.run(); });
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
  StreamSession stream(kAmple, [](JobLooper&, const Give& give) {
    (void)::raise(SIGINT);
    give(numbered(1));
    while (true) ::pause();
  });
  kl::message m;
  EXPECT_EQ(stream.next(m, {}, interrupt.fd()), StreamSession::kMessage);
  ASSERT_EQ(::raise(SIGINT), 0);
  EXPECT_EQ(stream.next(m, {}, interrupt.fd()), StreamSession::kInterrupted);
}

}  // namespace klctl
