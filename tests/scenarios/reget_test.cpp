// Reading whole tables through the real loader: of netif, and of a service with a hundred thousand objects.

#include "kl/reget.h"

#include <functional>

#include "tests/scenarios/fixture.h"

namespace scenarios {
namespace {

constexpr unsigned int kLarge = 100000;
constexpr unsigned int kNetif = 32;
constexpr unsigned int kAmpleTicks = 6000;
constexpr char kServices[] = "[[service]]\nname = \"netif\"\ncommand = [\"" KL_BIN_DIR "/netif\"]\n";

kl::message requestTo(const Ids& path) {
  kl::message m;
  m.insert(kl::SYS_TO, path);
  m.insert(kl::SYS_CMD, kl::CMD_GETALL);
  return m;
}

class RegetScenario : public testing::Test {
 protected:
  // `atObject` is called with the number of each object.
  Ids waitedFor(
      const Ids& path, unsigned int timeout = kAmpleTicks,
      const std::function<void(unsigned int)>& atObject = [](unsigned int) {}) {
    kl::FullReget reget;
    reget.setBase(requestTo(path));
    reget.setTimeout(timeout);
    Ids ids;
    while (!reget.isEmpty()) {
      ids.push_back(reget.pop().get(kl::STD_ID, kl::BADID));
      atObject(ids.back());
    }
    return ids;
  }
  void stopService() {
    ASSERT_EQ(::kill(provider(), SIGKILL), 0);
    driver_.act(table::kService, kl::SVC_STOP);
    while (driver_.row(table::kService).get(kl::SVC_STATE, 0) != kl::SVC_STATE_STOPPED) {
    }
  }

  void start(const Ids& path, unsigned int timeout = kAmpleTicks) {
    reget_.start(requestTo(path), this, kl::bind<RegetScenario, &RegetScenario::onObject>(),
                 kl::bind<RegetScenario, &RegetScenario::onDone>(), timeout);
  }
  void onObject(const kl::message& object) {
    ids_.push_back(object.get(kl::STD_ID, kl::BADID));
    if (ids_.size() == stopAt_) reget_.stop();
  }
  void onDone(const kl::message& reply) {
    ++ends_;
    error_ = kl::ERROR_OK;
    (void)kl::isError(reply, &error_);
  }

  void pass() {
    looper_.dispatchQueue();
    looper_.runSocks(kl::getJiffies());
  }
  void awaitEnd() {
    for (const unsigned int before = ends_; ends_ == before;) pass();
  }
  void awaitObjects(std::size_t count) {
    while (ids_.size() < count) {
      pass();
      if (!reget_.isRunning()) reget_.retry();
    }
  }
  pid_t provider() { return static_cast<pid_t>(driver_.row(table::kService).get(kl::SVC_PID, 0)); }

  // Every number once and in order.
  void expectWhole() const {
    ASSERT_EQ(ids_.size(), kLarge);
    for (unsigned int i = 0; i < kLarge; ++i) ASSERT_EQ(ids_[i], i + 1);
  }

  LoaderProcess loader_{tableService("large") + kServices};
  kl::Looper looper_{kl::Looper::kConnect};
  Driver driver_;
  kl::AsyncReget reget_;
  Ids ids_;
  std::size_t stopAt_ = 0;
  unsigned int ends_ = 0;
  unsigned int error_ = kl::ERROR_OK;
};

}  // namespace

TEST_F(RegetScenario, BothWaysBringTheSame) {
  start(kTable);
  awaitEnd();
  EXPECT_EQ(error_, kl::ERROR_OK);
  expectWhole();
  EXPECT_EQ(waitedFor(kTable), ids_);

  ids_.clear();
  start({kNetif});
  awaitEnd();
  EXPECT_FALSE(ids_.empty());
  EXPECT_EQ(waitedFor({kNetif}), ids_);
}

TEST_F(RegetScenario, StoppedInTheMiddleItTellsNoMoreAndBeginsAnew) {
  stopAt_ = kLarge / 2;
  start(kTable);
  awaitEnd();
  EXPECT_EQ(ids_.size(), stopAt_);
  EXPECT_FALSE(reget_.isRunning());
  stopAt_ = 0;
  ids_.clear();
  reget_.restart();
  awaitEnd();
  expectWhole();
}

TEST_F(RegetScenario, AfterTheEndOfTheServiceARetryGoesOnWhereItWas) {
  start(kTable);
  awaitObjects(kLarge / 4);
  stopService();
  awaitEnd();
  EXPECT_EQ(error_, kl::ERROR_BRKPATH);
  EXPECT_LT(ids_.size(), kLarge);
  driver_.act(table::kService, kl::SVC_START);
  while (error_ != kl::ERROR_OK) {
    reget_.retry();
    awaitEnd();
  }
  expectWhole();
}

TEST_F(RegetScenario, AServiceThatStopsInTheMiddleIsATimeoutAndARetryGoesOn) {
  (void)driver_.ask(kTable, kl::CMD_NOOP);
  start(kTable, 100);
  awaitObjects(1);
  ASSERT_EQ(::kill(provider(), SIGSTOP), 0);
  awaitEnd();
  EXPECT_EQ(error_, kl::ERROR_TIMEOUT);
  ASSERT_EQ(::kill(provider(), SIGCONT), 0);
  while (error_ != kl::ERROR_OK) {
    reget_.retry();
    awaitEnd();
  }
  expectWhole();
}

TEST_F(RegetScenario, TheWalkThatWaitsEndsWithTheService) {
  testing::internal::CaptureStdout();
  const Ids ids = waitedFor(kTable, kAmpleTicks, [this](unsigned int id) {
    if (id == kLarge / 4) stopService();
  });
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "FULLREGET: " + kl::getError(kl::errorMsg(kl::ERROR_BRKPATH, "")) + "\n");
  EXPECT_GE(ids.size(), kLarge / 4);
  EXPECT_LT(ids.size(), kLarge);
}

// The reply that comes too late belongs to no later walk.
TEST_F(RegetScenario, TheWalkThatWaitsGivesUpAndTheNextOneBringsAll) {
  testing::internal::CaptureStdout();
  const Ids ids = waitedFor(kTable, 50, [this](unsigned int id) {
    if (id == kLarge / 4) {
      ASSERT_EQ(::kill(provider(), SIGSTOP), 0);
    }
  });
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "FULLREGET: " + kl::getError(kl::errorMsg(kl::ERROR_TIMEOUT, "")) + "\n");
  EXPECT_LT(ids.size(), kLarge);
  ASSERT_EQ(::kill(provider(), SIGCONT), 0);
  ids_ = waitedFor(kTable);
  expectWhole();
}

}  // namespace scenarios
