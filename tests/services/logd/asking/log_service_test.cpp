// The log service as a service: under the loader, asked and followed by another service.

#include "services/logd/asking/log_service.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <list>

#include "kl/services.h"
#include "kl/utilities.h"
#include "tests/services/logd/system.h"
#include "tests/support/hex.h"
#include "tests/support/process/child.h"
#include "tests/support/process/child_process.h"

namespace logd::test {
namespace {

namespace fs = std::filesystem;

const std::string kNames = "[log]\ntopics = \"" KL_SOURCE_DIR "/services/logd/topics.list\"\n";
const std::string kAll = kl::underRoot("/kelo/all.log");
const std::string kWithFile = kNames + "[[file]]\npath = \"" + kAll + "\"\n";

// For a test that reads late what it is told: the loader drops none of it.
constexpr char kLongQueues[] = "[loader]\nqueue_limit = 16777216\n";

// The texts of the next notification; `skipped` is what it says is left out.
std::vector<std::string> nextNews(System& system, unsigned int& skipped) {
  std::vector<std::string> texts;
  const auto m = system.peer().receiveCommand(kl::CMD_NOTIFY, 20000);
  if (!m) return texts;
  for (const kl::message object : m->get(kl::STD_OBJS, {})) texts.push_back(object.get(kl::LOG_TEXT, ""));
  skipped += m->get(kl::LOG_SKIPPED, 0);
  return texts;
}

// Lines of the test's own process: the loader logs as well.
kl::message fromHere() {
  kl::message filter;
  filter.insert(kl::LOG_PID, static_cast<unsigned int>(::getpid()));
  return filter;
}

Bytes manyLines(unsigned int count) {
  Bytes all = registration(1, {5});
  for (unsigned int i = 0; i < count; ++i) {
    const Bytes line = textRecord(1, std::to_string(i));
    all.insert(all.end(), line.begin(), line.end());
  }
  return all;
}

TEST(LogService, ALineIsShownByIdWithEverythingOfIt) {
  System system(kNames);
  LogClient client;
  EXPECT_TRUE(client.write(registration(2, {5, 7}) + textRecord(2, "abc")));
  EXPECT_TRUE(system.hasLine("abc"));
  const kl::message line = system.lines(fromHere()).at(0);
  EXPECT_EQ(line.get(kl::LOG_PID, 0), static_cast<unsigned int>(::getpid()));
  EXPECT_EQ(line.get(kl::LOG_PROCESS, "") + "\n", contentOf("/proc/self/comm"));
  EXPECT_EQ(line.get(kl::LOG_TOPICS, {}), (std::vector<unsigned int>{5, 7}));
  kl::message request;
  request.insert(kl::STD_ID, line.get(kl::STD_ID, 0));
  EXPECT_EQ(system.ask({kl::SERVICE_LOG}, kl::CMD_GETOBJ, request).get(kl::LOG_TEXT, ""), "abc");
  EXPECT_GE(system.figure(kl::LOG_LINES), 1u);
}

TEST(LogService, AFollowerGetsTheTopicsThatItAskedFor) {
  System system(kNames);
  kl::message filter;
  filter.insert(kl::LOG_TOPICS, {4});
  system.subscribe({kl::SERVICE_LOG}, filter);
  LogClient client;
  EXPECT_TRUE(client.write(registration(1, {7}) + registration(2, {4, 32}) + textRecord(1, "good") +
                           textRecord(2, "bad") + textRecord(1, "good") + textRecord(2, "worse")));
  unsigned int skipped = 0;
  EXPECT_EQ(nextNews(system, skipped), (std::vector<std::string>{"bad", "worse"}));
  EXPECT_EQ(skipped, 0u);
}

TEST(LogService, ABurstCostsAFollowerFewMessages) {
  System system(kNames + "lines_per_second = 0\n", kLongQueues);
  system.subscribe({kl::SERVICE_LOG}, fromHere());
  LogClient client;
  EXPECT_TRUE(client.write(manyLines(50000)));
  unsigned int skipped = 0;
  std::size_t seen = 0;
  unsigned int messages = 0;
  while (seen + skipped < 50000 && messages < 5000) {
    seen += nextNews(system, skipped).size();
    ++messages;
  }
  EXPECT_EQ(seen + skipped, 50000u);
  EXPECT_LT(messages, 500u);
}

TEST(LogService, AFollowerThatDoesNotReadIsNotWaitedFor) {
  System system(kWithFile);
  kl::test::RawPeer lazy = kl::test::RawPeer::registered();
  kl::message m = kl::test::notification({kl::SERVICE_LOG});
  m.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
  ASSERT_TRUE(lazy.send(m));
  LogClient client;
  EXPECT_TRUE(client.write(registration(1, {5})));
  for (int i = 0; i < 300; ++i) EXPECT_TRUE(client.write(textRecord(1, std::string(20000, 'x'))));
  EXPECT_TRUE(client.write(textRecord(1, "last")));
  EXPECT_TRUE(system.hasLine("last"));
}

TEST(LogService, MutingReachesThoseWhoAreThereAndThoseWhoCome) {
  System system(kNames);
  LogClient before;
  EXPECT_TRUE(before.write(registration(1, {7}) + registration(2, {32, 8})));
  EXPECT_TRUE(before.write(textRecord(1, "here")));
  EXPECT_TRUE(system.hasLine("here"));
  system.mute(kl::TOPIC_DEBUG, true);
  EXPECT_EQ(before.read(6), kl::test::bytes("0006 0002 0001"));
  LogClient after;
  EXPECT_TRUE(after.write(registration(1, {8})));
  EXPECT_EQ(after.read(6), kl::test::bytes("0006 0001 0001"));
  system.mute(kl::TOPIC_DEBUG, false);
  EXPECT_EQ(before.read(6), kl::test::bytes("0006 0002 0000"));
  EXPECT_EQ(after.read(6), kl::test::bytes("0006 0001 0000"));
}

TEST(LogService, WhoFollowsTheRulesHearsOfAChange) {
  System system(kNames);
  system.subscribe({kl::SERVICE_LOG, kl::LOG_RULES});
  kl::test::RawPeer other = kl::test::RawPeer::registered();
  kl::message m = kl::test::request({kl::SERVICE_LOG, kl::LOG_RULES}, kl::CMD_SETOBJ, 1);
  m.insert(kl::STD_ID, kl::TOPIC_DEBUG);
  m.insert(kl::LOG_MUTED, true);
  ASSERT_TRUE(other.send(m));
  const auto news = system.peer().receiveCommand(kl::CMD_NOTIFY);
  ASSERT_TRUE(news);
  const kl::message object(news->get(kl::STD_OBJS, {}).at(0));
  EXPECT_EQ(object.get(kl::STD_ID, 0), kl::TOPIC_DEBUG);
  EXPECT_TRUE(object.get(kl::LOG_MUTED, false));
}

TEST(LogService, AHostileClientIsDisconnectedAndTheOthersGoOn) {
  System system(kNames);
  LogClient good;
  EXPECT_TRUE(good.write(registration(1, {5})));
  for (const char* digits :
       {"0000", "0003 0001 00", "0008 0000 0001 0001", "0005 0007 61", "0009 0000 0000 0001 00"}) {
    LogClient bad;
    EXPECT_TRUE(bad.write(kl::test::bytes(digits)));
    EXPECT_TRUE(bad.isDisconnected()) << digits;
  }
  EXPECT_TRUE(good.write(textRecord(1, "still here")));
  EXPECT_TRUE(system.hasLine("still here"));
  EXPECT_EQ(system.lines(fromHere()).size(), 6u) << "one line for each of them";
}

TEST(LogService, NobodyLooksLikeTheLoader) {
  System system(kNames);
  LogClient liar;
  EXPECT_TRUE(liar.write(registration(1, {kl::TOPIC_LOADER, 300}) + textRecord(1, "I am the loader")));
  EXPECT_TRUE(system.hasLine("I am the loader"));
  kl::test::RawPeer garbage;
  ASSERT_TRUE(garbage.connect());
  EXPECT_TRUE(garbage.sendBytes(kl::test::bytes("0001 00")));
  kl::message filter;
  filter.insert(kl::LOG_TOPICS, {kl::TOPIC_LOADER});
  ASSERT_TRUE(comesTrue([&] { return !system.lines(filter).empty(); })) << "the loader says nothing";
  for (const kl::message& line : system.lines(filter))
    EXPECT_EQ(line.get(kl::LOG_PROCESS_ID, 0), static_cast<unsigned int>(system.loader().pid()));
}

constexpr unsigned int kUser = 4711;
constexpr unsigned int kOther = 4712;
constexpr unsigned int kNobodysUid = 65534;  // which has a name on every system

// A process of a user that has written a line.
std::unique_ptr<LogClient> clientOf(unsigned int uid, const std::string& text) {
  const AsUser user(uid);
  auto client = std::make_unique<LogClient>();
  EXPECT_TRUE(client->write(registration(1, {5}) + textRecord(1, text)));
  return client;
}

std::vector<std::string> textsIn(const std::vector<kl::message>& lines) {
  std::vector<std::string> texts;
  for (const kl::message& line : lines) texts.push_back(line.get(kl::LOG_TEXT, ""));
  return texts;
}

TEST(LogService, AnOrdinaryUserSeesItsOwnLinesAlone) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  System system(kNames);
  const auto own = clientOf(kUser, "mine");
  const auto other = clientOf(kOther, "a password");
  LogClient root;
  EXPECT_TRUE(root.write(registration(1, {5}) + textRecord(1, "root's")));
  EXPECT_TRUE(system.hasLine("mine") && system.hasLine("a password") && system.hasLine("root's"));
  EXPECT_FALSE(system.ask({kl::SERVICE_LOG}, kl::CMD_GET).has(kl::LOG_UID));
  std::vector<unsigned int> ids;
  for (const kl::message& line : system.lines()) ids.push_back(line.get(kl::STD_ID, 0));
  system.become(kUser);
  EXPECT_EQ(textsIn(system.lines()), std::vector<std::string>{"mine"});
  kl::message wish;
  wish.insert(kl::LOG_UID, kOther);
  EXPECT_TRUE(system.lines(wish).empty());
  EXPECT_EQ(system.ask({kl::SERVICE_LOG}, kl::CMD_GET).get(kl::LOG_UID, 0), kUser);
  for (const char* text : {"a password", "root's"}) {
    kl::message request;
    request.insert(kl::LOG_CONTAINS, text);
    EXPECT_EQ(system.ask({kl::SERVICE_LOG}, kl::CMD_GETCOUNT, request).get(kl::STD_GETALLNO, 9), 0u) << text;
  }
  unsigned int shown = 0;
  for (const unsigned int id : ids) {
    kl::message request;
    request.insert(kl::STD_ID, id);
    if (!kl::isError(system.ask({kl::SERVICE_LOG}, kl::CMD_GETOBJ, request))) ++shown;
  }
  EXPECT_EQ(shown, 1u);
}

// While it lives, the system's list of users is root and one more.
class ListOfUsers {
 public:
  explicit ListOfUsers(unsigned int uidOfVisitor) {
    write(uidOfVisitor);
    isThere_ = ::mount(file_.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) == 0;
  }
  ~ListOfUsers() {
    if (isThere_) (void)::umount2("/etc/passwd", MNT_DETACH);
  }
  ListOfUsers(const ListOfUsers&) = delete;
  ListOfUsers& operator=(const ListOfUsers&) = delete;

  bool isThere() const { return isThere_; }
  void write(unsigned int uidOfVisitor) {
    std::ofstream(file_) << "root:x:0:0::/:/bin/sh\nvisitor:x:" << uidOfVisitor << ":0::/:/bin/sh\n";
  }

 private:
  const std::string file_ = kl::underRoot("/kelo/passwd");
  bool isThere_ = false;
};

TEST(LogService, UsersAreThoseWhoWereListedWhenItStarted) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  ListOfUsers list(kUser);
  if (!list.isThere()) GTEST_SKIP() << "nothing can be mounted";
  System system(kNames);
  const auto own = clientOf(kUser, "mine");
  const auto other = clientOf(kOther, "a password");
  EXPECT_TRUE(system.hasLine("mine") && system.hasLine("a password"));
  list.write(kOther);
  system.become(kUser);
  EXPECT_EQ(textsIn(system.lines()), std::vector<std::string>{"mine"});
  EXPECT_EQ(::kill(system.logService(), SIGHUP), 0);
  EXPECT_EQ(textsIn(system.lines()), std::vector<std::string>{"mine"});
}

TEST(LogService, AnOrdinaryUserReadsTheRulesAndMutesNothing) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  System system(kNames);
  system.become(kUser);
  kl::message request;
  request.insert(kl::STD_ID, kl::TOPIC_DEBUG);
  EXPECT_FALSE(kl::isError(system.ask({kl::SERVICE_LOG, kl::LOG_RULES}, kl::CMD_GETOBJ, request)));
  request.insert(kl::LOG_MUTED, true);
  unsigned int code = kl::ERROR_OK;
  EXPECT_TRUE(kl::isError(system.ask({kl::SERVICE_LOG, kl::LOG_RULES}, kl::CMD_SETOBJ, request), &code));
  EXPECT_EQ(code, kl::ERROR_NOTALLOWED);
}

TEST(LogService, TheRightToContentsShowsTheLinesOfOthers) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  System system(kNames, "[rights]\nnobody = [\"read\", \"contents\"]\n");
  const auto other = clientOf(kOther, "a password");
  EXPECT_TRUE(system.hasLine("a password"));
  system.become(kNobodysUid);
  EXPECT_TRUE(system.hasLine("a password"));
  EXPECT_FALSE(system.ask({kl::SERVICE_LOG}, kl::CMD_GET).has(kl::LOG_UID));
}

TEST(LogService, FollowersAreToldTheirOwnLinesEach) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  System all(kNames);
  kl::message noRemarks;
  noRemarks.insert(kl::LOG_TOPICS, {5});
  all.subscribe({kl::SERVICE_LOG}, noRemarks);
  kl::test::RawPeer users[2];
  for (const unsigned int uid : {kUser, kOther}) {
    const AsUser user(uid);
    kl::test::RawPeer& peer = users[uid - kUser];
    ASSERT_TRUE(peer.connect());
    ASSERT_NE(peer.registerAs(0), 0u);
    kl::message m = kl::test::notification({kl::SERVICE_LOG});
    m.merge(noRemarks);
    m.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
    ASSERT_TRUE(peer.send(m));
    ASSERT_TRUE(peer.send(kl::test::request({kl::SERVICE_LOG}, kl::CMD_NOOP, 1)));
    ASSERT_TRUE(peer.receiveReply(1));
  }
  const auto first = clientOf(kUser, "first user's");
  EXPECT_TRUE(all.hasLine("first user's"));
  const auto second = clientOf(kOther, "second user's");
  EXPECT_TRUE(all.hasLine("second user's"));
  for (const unsigned int uid : {kUser, kOther}) {
    const auto news = users[uid - kUser].receiveCommand(kl::CMD_NOTIFY);
    ASSERT_TRUE(news);
    const auto objects = news->get(kl::STD_OBJS, {});
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(kl::message(objects[0]).get(kl::LOG_UID, 0), uid);
    EXPECT_TRUE(users[uid - kUser].isQuiet()) << "nothing of the other";
  }
  unsigned int skipped = 0;
  std::vector<std::string> seen;
  while (seen.size() < 2)
    for (const std::string& text : nextNews(all, skipped)) seen.push_back(text);
  EXPECT_EQ(seen, (std::vector<std::string>{"first user's", "second user's"}));
}

TEST(LogService, AnEndedSubscriptionIsNotToldWhateverItsUserSees) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  System system(kNames);
  system.become(kUser);
  system.subscribe({kl::SERVICE_LOG});
  kl::message m = kl::test::notification({kl::SERVICE_LOG});
  m.insert(kl::SYS_CMD, kl::CMD_UNSUBSCRIBE);
  EXPECT_TRUE(system.peer().send(m));
  (void)system.ask({kl::SERVICE_LOG}, kl::CMD_NOOP);
  const auto client = clientOf(kUser, "mine");
  EXPECT_TRUE(system.hasLine("mine"));
  EXPECT_TRUE(system.peer().isQuiet());
}

TEST(LogService, AnOrdinaryUsersFollowersLeaveRoomForOthers) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  System system(kNames);
  system.become(kUser);
  for (unsigned int i = 0; i < 300; ++i) {
    kl::message filter;
    filter.insert(kl::LOG_SOURCE, 1000 + i);
    system.subscribe({kl::SERVICE_LOG}, filter);
  }
  system.become(0);
  system.subscribe({kl::SERVICE_LOG});
  const auto client = clientOf(kUser, "heard");
  unsigned int skipped = 0;
  EXPECT_FALSE(nextNews(system, skipped).empty());
}

TEST(LogService, NobodyPushesOutTheLinesOfOthersInMemoryOrFile) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  System system(kNames +
                "memory = 200000\nlines_per_second = 0\nbytes_per_second = 0\n"
                "[[file]]\npath = \"" +
                kAll + "\"\nsize = 100000\nfiles = 2\n");
  LogClient root;
  EXPECT_TRUE(root.write(registration(1, {5}) + textRecord(1, "root's")));
  const auto quiet = clientOf(kOther, "quiet");
  EXPECT_TRUE(system.hasLine("root's") && system.hasLine("quiet"));
  const auto flooder = clientOf(kUser, "first of many");
  EXPECT_TRUE(flooder->write(manyLines(20000) + textRecord(1, "last of many")));
  EXPECT_TRUE(system.hasLine("last of many"));
  EXPECT_TRUE(system.hasLine("root's"));
  EXPECT_TRUE(system.hasLine("quiet"));
  EXPECT_NE(contentOf(kAll).find("root's"), std::string::npos);
  EXPECT_NE(contentOf(kAll).find("quiet"), std::string::npos);
  EXPECT_FALSE(fs::exists(kAll + ".1"));
  EXPECT_TRUE(system.hasLine("the user 4711 has had its part"));
}

TEST(LogService, AFloodIsLimitedAndTold) {
  System system(kNames + "lines_per_second = 10\nburst = 100\n");
  LogClient client;
  EXPECT_TRUE(client.write(manyLines(1000)));
  EXPECT_TRUE(system.hasLine("lines dropped: they came too fast"));
  EXPECT_GE(system.figure(kl::LOG_DROPPED), 800u);
}

TEST(LogService, ARecordThatDiesWithItsProcessIsCounted) {
  System system(kNames);
  LogClient client;
  EXPECT_TRUE(client.write(registration(1, {5}) + Bytes{0, 9, 0, 1, 'h', 'a'}));
  client.close();
  EXPECT_TRUE(comesTrue([&] { return system.figure(kl::LOG_TORN) == 1; }));
  EXPECT_TRUE(system.lines(fromHere()).empty());
}

TEST(LogService, ItReopensItsFilesWithSighup) {
  System system(kWithFile);
  LogClient client;
  EXPECT_TRUE(client.write(registration(1, {5}) + textRecord(1, "first")));
  EXPECT_TRUE(system.hasLine("first"));
  fs::rename(kAll, kAll + ".moved");
  ASSERT_EQ(::kill(system.logService(), SIGHUP), 0);
  EXPECT_TRUE(comesTrue([&] {
    EXPECT_TRUE(client.write(textRecord(1, "second")));
    return fs::exists(kAll);
  }));
  EXPECT_NE(contentOf(kAll + ".moved").find("first"), std::string::npos);
}

TEST(LogService, ItTakesWhatWasWrittenBeforeItEnds) {
  System system(kWithFile);
  LogClient client;
  const pid_t pid = system.logService();
  ASSERT_EQ(::kill(pid, SIGSTOP), 0);
  EXPECT_TRUE(client.write(manyLines(1000)));
  ASSERT_EQ(::kill(pid, SIGTERM), 0);
  ASSERT_EQ(::kill(pid, SIGCONT), 0);
  EXPECT_TRUE(client.isDisconnected());
  EXPECT_TRUE(contentOf(kAll).ends_with(": 999\n"));
}

// A log service that the loader has not started and that lives on without it for a moment.
kl::test::ChildProcess startByHand() {
  std::ofstream(kl::underRoot("/kelo/kl-logd.toml")) << kWithFile;
  return kl::test::ChildProcess([] {
    kl::test::become({KL_BIN_DIR "/kl-logd", "--config", kl::underRoot("/kelo/kl-logd.toml")});
  });
}

TEST(LogService, ItTakesWhatWasWrittenBeforeTheLoaderWentAway) {
  kl::test::LoaderProcess loader;
  kl::test::ChildProcess service = startByHand();
  LogClient client;
  EXPECT_TRUE(client.write(registration(1, {5}) + textRecord(1, "first")));
  EXPECT_TRUE(comesTrue([] { return contentOf(kAll).find("first") != std::string::npos; }));
  service.signal(SIGSTOP);
  EXPECT_TRUE(client.write(manyLines(1000)));
  loader.signal(SIGKILL);
  EXPECT_EQ(loader.waitForEnd(), 128 + SIGKILL);
  service.signal(SIGCONT);
  EXPECT_TRUE(client.isDisconnected());
  EXPECT_TRUE(contentOf(kAll).ends_with(": 999\n"));
  EXPECT_NE(service.waitForEnd(), -1);
}

TEST(LogService, AFullDiskStopsTheFileAloneAndItGoesOnByItself) {
  const std::string small = kl::underRoot("/kelo/small");
  fs::create_directory(small);
  if (::mount("none", small.c_str(), "tmpfs", 0, "size=64k") != 0) GTEST_SKIP() << "no tmpfs can be mounted";
  System system(kNames + "lines_per_second = 0\n[[file]]\npath = \"" + small +
                "/all.log\"\nsize = 1000000\n");
  system.subscribe({kl::SERVICE_LOG});
  LogClient client;
  EXPECT_TRUE(client.write(registration(1, {5})));
  for (int i = 0; i < 200; ++i) EXPECT_TRUE(client.write(textRecord(1, std::string(1000, 'x'))));
  EXPECT_TRUE(client.write(textRecord(1, "memory goes on")));
  EXPECT_TRUE(system.hasLine("memory goes on"));
  kl::message request;
  request.insert(kl::LOG_CONTAINS, "No space left on device");
  EXPECT_EQ(system.lines(request).size(), 1u);
  EXPECT_EQ(contentOf(small + "/all.log").back(), '\n') << "nothing half";
  ASSERT_EQ(::mount("none", small.c_str(), "tmpfs", MS_REMOUNT, "size=1m"), 0);
  EXPECT_TRUE(comesTrue([&] {
    EXPECT_TRUE(client.write(textRecord(1, "and the file, too")));
    return contentOf(small + "/all.log").find("and the file, too") != std::string::npos;
  }));
  EXPECT_TRUE(system.hasLine("lines are written again"));
}

TEST(LogService, WhoComesBeforeTheLoaderHasLetItInIsNotMissed) {
  kl::test::LoaderProcess loader;
  loader.signal(SIGSTOP);
  kl::test::ChildProcess service = startByHand();
  LogClient client;
  EXPECT_TRUE(client.write(registration(1, {5}) + textRecord(1, "early")));
  loader.signal(SIGCONT);
  EXPECT_TRUE(comesTrue([] { return contentOf(kAll).find("early") != std::string::npos; }));
  EXPECT_EQ(service.end(SIGTERM), 0);
}

}  // namespace
}  // namespace logd::test
