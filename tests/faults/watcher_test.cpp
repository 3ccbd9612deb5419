// The watcher while the system refuses: whatever is hit, it knows in the end what its service has, or the process ends.

#include "kl/watcher.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "kl/bind.h"
#include "tests/faults/process.h"

namespace kl {
namespace {

using test::exposed;
using test::FaultRun;
using test::Process;
using test::spared;

using Ids = std::set<unsigned int>;

constexpr unsigned int kHandler = 7;
constexpr unsigned int kService = 32;
constexpr unsigned int kDeadlineTicks = 3000;
constexpr unsigned int kHaste = 5;  // a crash costs a pause of 50 ms
constexpr field<std::vector<unsigned char>> kFiller{0x30000001};

std::vector<message::flat_message> objects(const Ids& ids, const Ids& dead = {}) {
  std::vector<message::flat_message> flat;
  for (const Ids* list : {&ids, &dead})
    for (const unsigned int id : *list) {
      message m;
      m.insert(STD_ID, id);
      if (list == &dead) m.insert(STD_DEAD, 1);
      else m.insert(kFiller, std::vector<unsigned char>(4000, static_cast<unsigned char>(id)));
      m.flatten(flat.emplace_back());
    }
  return flat;
}

message fromService(const std::vector<unsigned int>& to) {
  message m;
  m.insert(SYS_TO, to);
  m.insert(SYS_FROM, {kService});
  return m;
}

// Has {1, 2} and, in a second chunk, {3}; then 2 goes and 4 comes.  It crashes, comes again, and has {1, 4, 5}.
class Service {
 public:
  explicit Service(test::LoaderDouble& loader) : loader_(loader) {}

  // Answers what has come.
  void answer() {
    while (!loader_.isSilent()) {
      const message m = loader_.receive();
      if (m.get(SYS_CMD, 0) == CMD_GETALL) answerWalk(m);
    }
  }

 private:
  void answerWalk(const message& request) {
    switch (++requests_) {
      case 1: return reply(request, {1, 2}, 3);
      case 2:
        reply(request, {3}, BADID);
        notify();
        return crash();
      default: return reply(request, {1, 4, 5}, BADID);
    }
  }

  void reply(const message& request, const Ids& ids, unsigned int next) {
    message m = fromService(request.get(SYS_FROM, {}));
    m.insert(STD_OBJS, objects(ids));
    if (next != BADID) m.insert(STD_GETALLID, next);
    setType(m, TYPE_REPLY);
    setRequestID(m, request.get(SYS_REQID, BADID));
    loader_.send(m);
  }

  void notify() {
    message m = fromService({kHandler});
    m.insert(SYS_CMD, CMD_NOTIFY);
    m.insert(STD_OBJS, objects({4}, {2}));
    loader_.send(m);
  }

  void crash() {
    message m = fromService({});
    m.insert(SYS_CMD, CMD_DISCONNECTED);
    loader_.send(m);
  }

  test::LoaderDouble& loader_;
  unsigned int requests_ = 0;
};

class Copy : public Watcher {
 public:
  explicit Copy(Process& process) : looper_(*process.looper), service_(process.loader) {
    looper_.addHandler(kHandler, this);
    looper_.addBeforeSleep(this, bind<Copy, &Copy::serve>());
    looper_.addTimer(this, bind<Copy, &Copy::onDeadline>(), kDeadlineTicks);
  }
  ~Copy() override { looper_.removeBeforeSleep(this, bind<Copy, &Copy::serve>()); }

  const Ids& ids() const { return ids_; }
  const std::vector<Ids>& tables() const { return tables_; }
  unsigned int losses() const { return losses_; }

 private:
  void objectChanged(const message& m) override {
    EXPECT_EQ(m.get(kFiller, {}).size(), 4000U);
    ids_.insert(m.get(STD_ID, 0));
  }
  void objectRemoved(unsigned int id) override { EXPECT_EQ(ids_.erase(id), 1U) << id; }
  void tableComplete() override {
    tables_.push_back(ids_);
    if (tables_.size() == 2) looper_.shutdown();
  }
  void providerLost(const message&) override {
    ++losses_;
    EXPECT_EQ(ids_, (Ids{1, 3, 4})) << "the notification came before the end";
  }
  void serve() {
    spared([this] { service_.answer(); });
  }
  void onDeadline() { looper_.shutdown(); }

  Looper& looper_;
  Service service_;
  Ids ids_;
  std::vector<Ids> tables_;
  unsigned int losses_ = 0;
};

TEST(WatcherFaults, TheCopyIsTheTableAlsoAfterTheServiceCrashedOrTheProcessEnds) {
  const unsigned int tried = test::forEachFault(
      test::faultsWithout({"fcntl"}),
      [] {
        test::hurry(kHaste);
        Process process;
        Copy copy(process);
        exposed([&] {
          copy.watch({kService});
          process.looper->run();
        });
        EXPECT_EQ(copy.tables(), (std::vector<Ids>{{1, 2, 3}, {1, 4, 5}}));
        EXPECT_EQ(copy.ids(), (Ids{1, 4, 5}));
        EXPECT_EQ(copy.losses(), 1U);
      },
      [](const FaultRun& run) {
        test::expectWholeOrFatal(run);
        EXPECT_EQ(run.child.out, "");
      });
  EXPECT_GE(tried, 40U);
}

}  // namespace
}  // namespace kl
