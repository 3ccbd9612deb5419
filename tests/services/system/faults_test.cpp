// The system service while the system refuses: every request is answered, a figure that cannot be read is missing and
// no other is wrong, and a change of the zone is told unless the kernel refused to watch for it.  Only the loader's
// connection ends it.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kl/bind.h"
#include "kl/logger.h"
#include "kl/services.h"
#include "services/system/system_service.h"
#include "tests/services/system/zone_file.h"
#include "tests/support/calls/faults.h"
#include "tests/support/doubles/loader_double.h"

namespace kl_system {
namespace {

using kl::test::exposed;
using kl::test::FaultRun;
using kl::test::spared;

constexpr char kZone[] = "/ram/zone";
constexpr int kFirstOffset = 5400;
constexpr int kSecondOffset = 7200;
constexpr unsigned int kAsker = 9;
constexpr unsigned int kHaste = 10;
constexpr unsigned int kMostLooks = 300;

// Asks for everything, then changes the zone and waits for the word of it.
class Asker {
 public:
  Asker(kl::test::LoaderDouble& loader, SystemService& service) : loader_(loader), service_(service) {
    service_.addTimer(this, kl::bind<Asker, &Asker::look>(), 1);
    send(kl::CMD_SUBSCRIBE, {});
    send(kl::CMD_GET, 1U);
    send(kl::CMD_GETALL, 2U);
  }

  kl::message figures;
  std::size_t objects = 0;
  bool wasTold = false;

 private:
  void send(unsigned int command, std::optional<unsigned int> id) {
    kl::message m;
    m.insert(kl::SYS_TO, {0U});  // the handler of the zone; with an id, the service itself
    if (id) m.insert(kl::SYS_TO, std::vector<unsigned int>());
    m.insert(kl::SYS_FROM, {kAsker});
    m.insert(kl::SYS_CMD, command);
    if (!id) m.insert(kl::SYS_NOTIFYCMD, kl::SYSTEM_TIMEZONE_CHANGED);
    if (id) kl::setRequestID(m, *id);
    if (id) m.insert(kl::SYS_REPLYEXP, true);
    loader_.send(m);
  }

  void look() {
    spared([this] {
      while (!loader_.isSilent()) take(loader_.receive());
      if (wasTold || ++looks_ == kMostLooks) service_.shutdown();
      else service_.addTimer(this, kl::bind<Asker, &Asker::look>(), 1);
    });
  }

  void take(const kl::message& m) {
    if (!kl::isReply(m)) {
      wasTold = wasTold || m.get(kl::SYSTEM_TIMEZONE, 0) == static_cast<unsigned int>(kSecondOffset);
    } else if (m.get(kl::SYS_REQID, 0) == 1) {
      figures = m;
    } else {
      objects = m.get(kl::STD_OBJS, {}).size();
      replaceFile(kZone, zoneBytes(kSecondOffset));
    }
  }

  kl::test::LoaderDouble& loader_;
  SystemService& service_;
  unsigned int looks_ = 0;
};

void playService() {
  replaceFile(kZone, zoneBytes(kFirstOffset));
  (void)::setenv("TZ", (":" + std::string(kZone)).c_str(), 1);
  kl::test::hurry(kHaste);
  kl::test::LoaderDouble loader;
  loader.sendReady();
  std::unique_ptr<SystemService> service;
  exposed([&] { service = std::make_unique<SystemService>(); });
  (void)loader.receiveFrame();  // its registration
  Asker asker(loader, *service);
  exposed([&] { service->run(); });
  EXPECT_EQ(asker.figures.get(kl::SYSTEM_TIMEZONE, 0), static_cast<unsigned int>(kFirstOffset));
  EXPECT_NE(asker.figures.get(kl::SYSTEM_HOSTNAME, ""), "");
  EXPECT_GT(asker.figures.get(kl::SYSTEM_UPTIME, 0), 0U);
  EXPECT_EQ(asker.objects, kl::SYSTEM_OBJECT_LOAD + 1U);
  exposed([&] { service.reset(); });
  delete kl::Logger::getLogger();  // the process's, and with it its descriptor
  std::printf("%s, memory %s", asker.wasTold ? "told" : "not told",
              asker.figures.get(kl::SYSTEM_MEMORY_TOTAL, 0) > 0 ? "known" : "unknown");
}

// Whether the change is noticed by nothing but the look that is due after an hour.
bool isNotWatched(const FaultRun& run) {
  const std::string call = run.kind.call;
  return call == "inotify_init1" || call == "inotify_add_watch";
}

class SystemFaults : public testing::TestWithParam<const char*> {};

TEST_P(SystemFaults, EveryRequestIsAnsweredAndAChangeOfTheZoneIsToldIfItCanBeWatched) {
  const auto kinds = kl::test::faultsOf({GetParam()});
  const unsigned int tried = kl::test::forEachFault(kinds, playService, [](const FaultRun& run) {
    if (run.child.exitStatus == 1 && run.child.err.rfind("LOOPER", 0) == 0) return;
    EXPECT_EQ(run.child.exitStatus, 0) << run.child.err;
    EXPECT_EQ(run.child.err, "");
    const bool wasTold = run.child.out.find("not told") == std::string::npos;
    EXPECT_TRUE(wasTold || isNotWatched(run)) << run.child.out;
  });
  EXPECT_GE(tried, kinds.size());
}

// Not fcntl: a connection that stays blocking is told and used as it is, and then the next read may wait.
INSTANTIATE_TEST_SUITE_P(Calls, SystemFaults,
                         testing::Values("read", "send", "poll", "open", "close", "timerfd_create",
                                         "inotify_init1", "inotify_add_watch", "socket", "connect"),
                         [](const auto& call) { return std::string(call.param); });

}  // namespace
}  // namespace kl_system
