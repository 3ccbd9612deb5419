// A watcher and a service that crashes a hundred times (in an emulator twenty).

#include "kl/watcher.h"

#include <map>

#include "kl/reget.h"
#include "tests/scenarios/fixture.h"
#include "tests/support/build/effort.h"

namespace scenarios {
namespace {

constexpr unsigned int kNumber = 9;
constexpr unsigned int kMarker = 4000000;
constexpr int kCrashes = kl::test::repeated(100);

using Copy = std::map<unsigned int, std::vector<unsigned char>>;

// Keeps what `relevant` leaves of each object.
class Mirror : public kl::Watcher {
 public:
  using Relevant = kl::message (*)(const kl::message&);
  explicit Mirror(Relevant relevant) : relevant_(relevant) {}

  void objectChanged(const kl::message& object) override {
    ++told;
    put(copy, object);
  }
  void objectRemoved(unsigned int id) override { EXPECT_EQ(copy.erase(id), 1u) << id; }
  void tableComplete() override { ++completions; }
  void providerLost(const kl::message&) override { ++losses; }

  void put(Copy& into, const kl::message& object) const {
    relevant_(object).flatten(into[object.get(kl::STD_ID, kl::BADID)]);
  }

  Copy copy;
  unsigned int told = 0;
  unsigned int completions = 0;
  unsigned int losses = 0;

 private:
  Relevant relevant_;
};

kl::message withoutFilter(const kl::message& object) {
  kl::message m(object);
  m.remove(kl::REGET_FILTER);
  return m;
}

// The fields that stay the same when nobody touches the interface.
kl::message withoutCounters(const kl::message& object) {
  kl::message m;
  m.insert(kl::STD_ID, object.get(kl::STD_ID, kl::BADID));
  m.insert(kl::STD_DESCR, object.get(kl::STD_DESCR, ""));
  m.insert_string(0x20000001, object.get_string(0x20000001, ""));
  return m;
}

// The watcher's process is the test's own.
class WatcherScenario : public testing::Test {
 protected:
  void begin(const std::string& services, const Ids& path, Mirror::Relevant relevant) {
    path_ = path;
    loader_.emplace(services);
    looper_.emplace(kl::Looper::kConnect);
    driver_.emplace();
    mirror_.emplace(relevant);
    looper_->addHandler(kNumber, &*mirror_);
    mirror_->watch(path);
    awaitComplete();
  }

  // One pass of the loop; it waits for the next thing to happen.
  void pass() {
    looper_->dispatchQueue();
    looper_->runSocks(kl::getJiffies());
  }
  // Until everything that the loader has sent up to now was taken: the answer to a question comes behind it.
  void settle() {
    settled_ = false;
    kl::message m;
    m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
    m.insert(kl::SYS_CMD, kl::CMD_NOOP);
    looper_->postMessage(m, this, kl::bind<WatcherScenario, &WatcherScenario::onSettled>(), {}, -1);
    while (!settled_) pass();
  }
  void onSettled(const kl::message&, const kl::message&) { settled_ = true; }

  void awaitComplete() {
    settle();
    while (!mirror_->isComplete()) pass();
  }

  // Another moment each time: when all is well, at once, after the first object, after the first change.
  void awaitMoment(int n) {
    if (n % 4 == 0) return awaitComplete();
    if (n % 4 == 1) return;
    if (n % 4 == 3) awaitComplete();
    for (const unsigned int told = mirror_->told; mirror_->told == told;) pass();
  }

  Copy fetched() {
    kl::FullReget reget;
    kl::message request;
    request.insert(kl::SYS_TO, path_);
    reget.setBase(request);
    Copy copy;
    while (!reget.isEmpty()) mirror_->put(copy, withoutFilter(reget.pop()));
    return copy;
  }

  Ids path_;
  bool settled_ = false;
  std::optional<LoaderProcess> loader_;
  std::optional<kl::Looper> looper_;
  std::optional<Driver> driver_;
  std::optional<Mirror> mirror_;
};

}  // namespace

TEST_F(WatcherScenario, EndsWithTheRightStateAfterAHundredCrashesOfAChangingTable) {
  begin(tableService("changing"), kTable, withoutFilter);
  for (int n = 0; n < kCrashes; ++n) {
    awaitMoment(n);
    driver_->crash(table::kService);
  }
  awaitComplete();
  while (kl::isError(driver_->ask(kTable, kl::CMD_CANCEL))) pass();
  kl::message marker;
  marker.insert(kl::STD_ID, kMarker);
  (void)driver_->ask(kTable, kl::CMD_SETOBJ, marker);
  while (!mirror_->copy.contains(kMarker)) pass();  // what came before it has come
  EXPECT_TRUE(mirror_->isComplete());
  EXPECT_GE(mirror_->losses, kCrashes / 2u);
  EXPECT_EQ(mirror_->copy, fetched());
  EXPECT_EQ(driver_->row(table::kService).get(kl::SVC_STARTS, 0), kCrashes + 1u);
}

TEST_F(WatcherScenario, EndsWithTheRightStateAfterAHundredCrashesOfNetif) {
  constexpr unsigned int kNetifService = 32;
  begin("[[service]]\nname = \"netif\"\ncommand = [\"" KL_BIN_DIR "/netif\"]\n", {kNetifService},
        withoutCounters);
  for (int n = 0; n < kCrashes; ++n) {
    if (n % 2 == 0) awaitComplete();
    driver_->crash(kNetifService);
  }
  awaitComplete();
  EXPECT_GE(mirror_->losses, kCrashes / 2u);
  EXPECT_EQ(mirror_->copy, fetched());
  EXPECT_FALSE(mirror_->copy.empty());
}

TEST_F(WatcherScenario, FollowsAServiceThatIsStartedLater) {
  loader_.emplace(tableService() + "start = false\n");
  looper_.emplace(kl::Looper::kConnect);
  driver_.emplace();
  mirror_.emplace(withoutFilter);
  looper_->addHandler(kNumber, &*mirror_);
  mirror_->setTimeout(1);  // what waits for a service that is yet to come is held and not refused
  mirror_->watch(kTable);
  while (mirror_->losses == 0) pass();
  mirror_->setTimeout(kPatienceMs / 10);
  driver_->act(table::kService, kl::SVC_START);
  awaitComplete();
  EXPECT_TRUE(mirror_->copy.empty());
}

TEST_F(WatcherScenario, AServiceThatLeavesIsNotLostAndTellsItsChangesWhenItIsBack) {
  begin(tableService("leaving"), kTable, withoutFilter);
  driver_->act(table::kService, kl::SVC_LEAVE);
  while (driver_->row(table::kService).get(kl::SVC_STATE, 0) != kl::SVC_STATE_LEFT) {
  }
  settle();
  EXPECT_TRUE(mirror_->isComplete());
  kl::message marker;
  marker.insert(kl::STD_ID, kMarker);
  (void)driver_->ask(kTable, kl::CMD_SETOBJ, marker);  // starts it again
  while (!mirror_->copy.contains(kMarker)) pass();
  EXPECT_EQ(mirror_->losses, 0u);
  EXPECT_EQ(mirror_->completions, 1u);
  EXPECT_EQ(driver_->row(table::kService).get(kl::SVC_STARTS, 0), 2u);
}

// A hundred thousand objects, as each of the three ways of reading a table brings them.
TEST_F(WatcherScenario, ALargeTableIsReadWhole) {
  constexpr unsigned int kManyObjects = 100000;
  begin(tableService("large"), kTable, withoutFilter);
  EXPECT_EQ(mirror_->copy.size(), kManyObjects);
  EXPECT_EQ(mirror_->told, kManyObjects);
  EXPECT_EQ(fetched(), mirror_->copy);
}

}  // namespace scenarios
