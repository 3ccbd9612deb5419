// The loader sends what it shows to the handler that asked, as commands that expect no reply.

#include "ask/tap.h"

#include "ask/events.h"
#include "services/common/tap.h"

namespace klctl {
namespace {

constexpr unsigned int kOwnNumber = 1;

// Asks for the tap and emits what it shows.
class TapFollower : public kl::Handler {
 public:
  explicit TapFollower(const Emit& emit) : emit_(emit) {}

  // Needs: to be one of the Looper's handlers.
  void begin(kl::message request, int timeoutTicks) {
    const kl::message reply = exchangeCmd(request, common::tap::CMD_TAP, timeoutTicks);
    emit_(toMessage(kl::isError(reply) ? EventKind::kLost : EventKind::kComplete, reply));
  }

 private:
  // Every message that comes was asked for.
  bool checkPolicy(const kl::message&) override { return true; }

  void handleCmd(const kl::message& m, unsigned int command) override {
    if (command != common::tap::CMD_TAP) return Handler::handleCmd(m, command);
    for (const kl::message object : m.get(kl::STD_OBJS, {})) emit_(toMessage(EventKind::kObject, object));
  }

  const Emit& emit_;
};

}  // namespace

Job tapJob(const kl::message& request, int timeoutTicks) {
  return [=](JobLooper& looper, const Emit& emit) {
    TapFollower follower(emit);
    looper.addHandler(kOwnNumber, &follower);
    follower.begin(request, timeoutTicks);
    looper.run();
  };
}

}  // namespace klctl
