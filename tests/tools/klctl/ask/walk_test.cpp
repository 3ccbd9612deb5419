#include "tools/klctl/ask/walk.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "kl/conventions.h"
#include "tests/support/process/child_process.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/scripted_loader.h"
#include "tests/tools/klctl/terminal.h"

namespace klctl {
namespace {

using kl::test::LoaderDouble;
using std::chrono::milliseconds;

constexpr milliseconds kPause(200);

kl::message request() {
  kl::message m;
  m.insert(kl::SYS_TO, {32});
  m.insert(kl::SYS_CMD, kl::CMD_GETALL);
  return m;
}

// Answers the next request and gives it back.
kl::message answer(LoaderDouble& connection, kl::message body) {
  const kl::message asked = connection.receive();
  kl::setType(body, kl::TYPE_REPLY);
  kl::setRequestID(body, asked.get(kl::SYS_REQID, kl::BADID));
  connection.send(body);
  return asked;
}

kl::message chunk(unsigned int first, unsigned int count, unsigned int next) {
  kl::message m;
  std::vector<kl::message::flat_message> objects;
  for (unsigned int id = first; id < first + count; ++id) {
    kl::message object;
    object.insert(kl::STD_ID, id);
    object.flatten(objects.emplace_back());
  }
  m.insert(kl::STD_OBJS, objects);
  if (next != 0) m.insert(kl::STD_GETALLID, next);
  return m;
}

std::vector<unsigned int> walked(milliseconds timeout = kAmple) {
  std::vector<unsigned int> ids;
  for (const kl::message object : walk(request(), "netif", timeout))
    ids.push_back(object.get(kl::STD_ID, kl::BADID));
  return ids;
}

}  // namespace

TEST(Walk, BringsTheObjectsOfEveryChunk) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    EXPECT_FALSE(answer(connection, chunk(1, 2, 7)).has(kl::STD_GETALLID));
    EXPECT_EQ(answer(connection, chunk(7, 0, 9)).get(kl::STD_GETALLID, 0), 7u);
    EXPECT_EQ(answer(connection, chunk(9, 1, 0)).get(kl::STD_GETALLID, 0), 9u);
    awaitEnd(connection);
  });
  EXPECT_EQ(walked(), (std::vector<unsigned int>{1, 2, 9}));
}

TEST(Walk, AReplyWithoutATableIsAnEmptyOne) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    (void)answer(connection, kl::message());
    awaitEnd(connection);
  });
  EXPECT_EQ(walked(), std::vector<unsigned int>());
}

TEST(Walk, AnErrorInTheMiddleIsTold) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    (void)answer(connection, chunk(1, 2, 7));
    (void)answer(connection, kl::errorMsg(kl::ERROR_BUSY, ""));
    awaitEnd(connection);
  });
  const Told told = failureOf([] { (void)walked(); });
  EXPECT_EQ(told.status, 1);
  EXPECT_EQ(told.sentence, "netif: std failure: busy (12)");
}

TEST(Walk, ATableThatDoesNotEndIsTold) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    (void)answer(connection, chunk(1, 2, 7));
    (void)answer(connection, chunk(7, 0, 7));
    awaitEnd(connection);
  });
  const Told told = failureOf([] { (void)walked(); });
  EXPECT_EQ(told.status, 1);
  EXPECT_EQ(told.sentence, "netif: the table does not end, it continues at 7 for the second time");
}

TEST(Walk, AServiceThatDoesNotAnswerIsATimeout) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    (void)answer(connection, chunk(1, 2, 7));
    awaitEnd(connection);
  });
  const Told told = failureOf([] { (void)walked(kPause); });
  EXPECT_EQ(told.status, 3);
  EXPECT_EQ(told.sentence, "no reply within 0.2 s");
}

TEST(Walk, AReplyThatNeverEndsIsATimeout) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    (void)connection.receive();
    connection.sendBytes({200, 0, 0, 0, 'M', '2'});
    awaitEnd(connection);
  });
  const Told told = failureOf([] { (void)walked(kPause); });
  EXPECT_EQ(told.status, 3);
  EXPECT_EQ(told.sentence, "the loader does not read, or it began a frame that it did not end");
}

TEST(Walk, ALoaderThatGoesAwayIsNoLoader) {
  const ScriptedLoader loader([](LoaderDouble& connection) {
    confirm(connection);
    (void)answer(connection, chunk(1, 2, 7));
  });
  const Told told = failureOf([] { (void)walked(); });
  EXPECT_EQ(told.status, 4);
}

TEST(Walk, OnATerminalALongWalkShowsHowFarItIs) {
  kl::test::Pipe goOn;
  const ScriptedLoader loader([&](LoaderDouble& connection) {
    confirm(connection);
    (void)answer(connection, chunk(1, 2, 7));
    EXPECT_TRUE(goOn.hear<char>());
    (void)answer(connection, chunk(7, 1, 0));
    awaitEnd(connection);
  });
  const Terminal terminal;
  kl::test::ChildProcess user([&] {
    ::dup2(terminal.fd(), STDERR_FILENO);
    EXPECT_EQ(walked().size(), 3u);
  });
  EXPECT_TRUE(terminal.shows("\r\x1b[Knetif: 2 objects ..."));
  goOn.say('!');
  EXPECT_TRUE(terminal.shows("\r\x1b[K"));
  EXPECT_EQ(user.waitForEnd(), 0);
}

TEST(Walk, ARequestThatNoFrameCarriesIsNotSent) {
  kl::message big = request();
  big.insert_string(0x20000001, std::string(66000, 'x'));
  EXPECT_EQ(failureOf([&] { (void)walk(big, "netif", kAmple); }).status, 2);
}

}  // namespace klctl
