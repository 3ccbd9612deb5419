// The undo service while the system refuses: every request is answered once, and the records are what the answers say,
// now and after the next start, unless a line of the store tells that a change failed.  Only the loader's connection
// ends it.

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kl/bind.h"
#include "kl/logger.h"
#include "kl/services.h"
#include "services/undo/undo_service.h"
#include "tests/services/undo/fixture.h"
#include "tests/support/calls/faults.h"
#include "tests/support/doubles/loader_double.h"

namespace undo {
namespace {

using kl::test::exposed;
using kl::test::FaultRun;
using kl::test::spared;

constexpr char kFolder[] = "/kelo/faults";
constexpr unsigned int kMaker = 500;
constexpr unsigned int kGone = 0x10005;  // a maker that the loader picked, and that has ended
constexpr unsigned int kAsker = 9;
constexpr unsigned int kDeadlineTicks = 1000;
constexpr char kBegin[] = "-- begin --\n";  // what was printed before belongs to the test

// A record's undo message and whether it is undone; an empty text where there is none.
using Contents = std::map<unsigned int, std::string>;

std::string textOf(const kl::message& record) {
  const kl::message m(record.get(kl::UNDO_MESSAGE, {}));
  return std::to_string(m.get(VALUE, 0)) + (record.get(kl::UNDO_UNDONE, false) ? " undone" : "");
}

Contents contentsOf(Records& records) {
  Contents contents;
  for (const auto& [id, maker] : records.makers()) contents[id] = textOf(records.get(id));
  return contents;
}

// Record 1, whose maker is there, and record 2, whose maker is not.
void makeRecords() {
  std::filesystem::remove_all(kFolder);
  Records records(kFolder);
  for (const unsigned int maker : {kMaker, kGone}) {
    kl::message record = report("made before");
    record.insert(kl::UNDO_SOURCE, {maker});
    (void)records.add(record);
  }
}

// The makers and the asker: they send one request after the other and expect of each answer what they know then.
class Others {
 public:
  Others(kl::test::LoaderDouble& loader, UndoService& service) : loader_(loader), service_(service) {
    requests_ = {report("a"), report("b"), start(1), undoneReport(1, 7), remove(3)};
    expected_ = {{1, "1"}};
    service_.addBeforeSleep(this, kl::bind<Others, &Others::act>());
    service_.addTimer(this, kl::bind<Others, &Others::giveUp>(), kDeadlineTicks);
    sendNext();
  }

  bool hasEverything() const { return answers_ == requests_.size(); }
  const Contents& expected() const { return expected_; }

 private:
  static kl::message request(unsigned int command, unsigned int id) {
    kl::message m;
    m.insert(kl::SYS_CMD, command);
    m.insert(kl::STD_ID, id);
    m.insert(kl::SYS_FROM, {kAsker});
    return m;
  }
  static kl::message start(unsigned int id) { return request(kl::CMD_START, id); }
  static kl::message remove(unsigned int id) { return request(kl::CMD_REMOVEOBJ, id); }

  void sendNext() {
    kl::message m = requests_[answers_];
    if (!m.has(kl::SYS_FROM)) m.insert(kl::SYS_FROM, {kMaker});
    m.insert(kl::SYS_TO, std::vector<unsigned int>());
    m.insert(kl::SYS_REPLYEXP, true);
    kl::setRequestID(m, static_cast<unsigned int>(answers_));
    loader_.send(m);
  }

  void act() {
    spared([this] {
      while (!loader_.isSilent()) take(loader_.receive());
    });
  }

  void take(const kl::message& m) {
    if (kl::isReply(m)) return answered(m);
    if (m.get(kl::SYS_CMD, kl::CMD_NOOP) == kl::CMD_SET) obey(m);
  }

  // The undo message, which the maker obeys.
  void obey(const kl::message& m) {
    EXPECT_EQ(m.get(kl::SYS_TO, {}), Ids{kMaker});
    EXPECT_EQ(m.get(VALUE, 0), 1U);
    kl::message reply;
    reply.insert(kl::SYS_TO, m.get(kl::SYS_FROM, {}));
    reply.insert(kl::SYS_FROM, {kMaker});
    kl::setType(reply, kl::TYPE_REPLY);
    kl::setRequestID(reply, m.get(kl::SYS_REQID, 0));
    loader_.send(reply);
  }

  void answered(const kl::message& reply) {
    EXPECT_EQ(reply.get(kl::SYS_REQID, kl::BADID), answers_);
    note(requests_[answers_].get(kl::SYS_CMD, 0), requests_[answers_].get(kl::STD_ID, 0), reply);
    ++answers_;
    if (hasEverything()) service_.shutdown();
    else sendNext();
  }

  // A failure to store is told to the reporter; a record whose report cannot be stored is dropped.
  void note(unsigned int command, unsigned int id, const kl::message& reply) {
    const bool isDone = !kl::isError(reply);
    if (command == kl::CMD_ADDOBJ && isDone) expected_[reply.get(kl::STD_ID, 0)] = "1";
    if (command == kl::CMD_SETOBJ && isDone) expected_[id] = "7 undone";
    if (command == kl::CMD_SETOBJ && !isDone) expected_.erase(id);
    if (command == kl::CMD_REMOVEOBJ) expected_.erase(id);
  }

  void giveUp() { service_.shutdown(); }

  kl::test::LoaderDouble& loader_;
  UndoService& service_;
  std::vector<kl::message> requests_;
  std::size_t answers_ = 0;
  Contents expected_;
};

// The loader's answer to the service's first question: who is there.
kl::message tableOfServices() {
  kl::message m;
  kl::message object;
  object.insert(kl::STD_ID, kMaker);
  m.insert(kl::STD_OBJS, {flat(object)});
  m.insert(kl::SYS_TO, std::vector<unsigned int>());
  m.insert(kl::SYS_FROM, {kl::SERVICE_LOADER});
  kl::setType(m, kl::TYPE_REPLY);
  kl::setRequestID(m, 0);
  return m;
}

kl::message settings() {
  kl::message section;
  section.insert(kl::UNDO_FOLDER, kFolder);
  kl::message m;
  m.insert(kl::READY_CONFIGURATION, flat(section));
  return m;
}

void playService() {
  makeRecords();
  std::printf("%s", kBegin);
  std::fflush(stdout);
  kl::test::LoaderDouble loader;
  loader.sendReady(settings());
  loader.send(tableOfServices());
  std::unique_ptr<UndoService> service;
  exposed([&] { service = std::make_unique<UndoService>(); });
  (void)loader.receiveFrame();  // its registration
  Others others(loader, *service);
  exposed([&] { service->run(); });
  EXPECT_TRUE(others.hasEverything());
  exposed([&] { service.reset(); });
  delete kl::Logger::getLogger();  // the process's, and with it its descriptor
  Records records(kFolder);
  std::fprintf(stderr, contentsOf(records) == others.expected() ? "as told" : "not as told");
}

bool saysThatAChangeFailed(const std::string& out) {
  return out.find("STORE: ", out.find(kBegin)) != std::string::npos;
}

class UndoFaults : public testing::TestWithParam<const char*> {};

TEST_P(UndoFaults, EveryRequestIsAnsweredAndTheRecordsAreWhatTheAnswersSay) {
  const auto kinds = kl::test::faultsOf({GetParam()});
  const unsigned int tried = kl::test::forEachFault(kinds, playService, [](const FaultRun& run) {
    if (run.child.exitStatus == 1 && run.child.err.rfind("LOOPER", 0) == 0) return;
    EXPECT_EQ(run.child.exitStatus, 0) << run.child.err;
    EXPECT_TRUE(run.child.err == "as told" || saysThatAChangeFailed(run.child.out)) << run.child.err;
  });
  EXPECT_GE(tried, kinds.size());
}

// Not fcntl: a connection that stays blocking is told and used as it is, and then the next read may wait.
INSTANTIATE_TEST_SUITE_P(Calls, UndoFaults,
                         testing::Values("read", "pread", "pwrite", "pwritev", "send", "poll", "open",
                                         "close", "ftruncate", "fstat", "socket", "connect"),
                         [](const auto& call) { return std::string(call.param); });

}  // namespace
}  // namespace undo
