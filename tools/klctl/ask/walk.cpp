// The walk happens in the courier; klctl gathers the objects and shows the progress.

#include "ask/walk.h"

#include <unistd.h>

#include <algorithm>
#include <set>

#include "ask/events.h"
#include "ask/fetch.h"
#include "ask/progress.h"
#include "ask/session.h"
#include "kl/message_view.h"
#include "kl/reget.h"
#include "values/failure.h"

namespace klctl {
namespace {
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// The walk in the courier's loop.
class Walker {
 public:
  Walker(JobLooper& looper, const Emit& emit) : looper_(looper), emit_(emit) {
    looper_.filter = [this](const kl::message& m) { return endsForSecondTime(m); };
  }

  void run(const kl::message& request, int timeoutTicks) {
    reget_.start(request, this, kl::bind<Walker, &Walker::onObject>(), kl::bind<Walker, &Walker::onDone>(),
                 static_cast<unsigned int>(timeoutTicks));
    looper_.run();
  }

 private:
  // A service that names one id twice would never end.
  bool endsForSecondTime(const kl::message& m) {
    if (!kl::isReply(m) || !m.has(kl::STD_GETALLID)) return false;
    if (continued_.insert(m.get(kl::STD_GETALLID, kl::BADID)).second) return false;
    end(EventKind::kEndless, m);
    return true;
  }

  void onObject(const kl::message& object) { emit_(toMessage(EventKind::kObject, object)); }
  void onDone(const kl::message& reply) { end(EventKind::kDone, reply); }

  void end(EventKind kind, const kl::message& last) {
    emit_(toMessage(kind, last));
    looper_.shutdown();
  }

  JobLooper& looper_;
  const Emit& emit_;
  kl::AsyncReget reget_;
  std::set<unsigned int> continued_;
};

void refuseErrors(const kl::message& reply, const std::string& path, unsigned int command,
                  milliseconds timeout) {
  if (!kl::isError(reply)) return;
  // The library's own time-out comes as an error that is no reply; a service's is one.
  if (!kl::isReply(reply)) throw noReply(timeout);
  throw refused(path, reply, command);
}

}  // namespace

Job walkJob(const kl::message& request, int timeoutTicks) {
  return [=](JobLooper& looper, const Emit& emit) { Walker(looper, emit).run(request, timeoutTicks); };
}

std::vector<kl::message::flat_message> walk(const kl::message& request, const std::string& path,
                                            milliseconds timeout) {
  refuseOversized(request);
  StreamSession stream(timeout, walkJob(request, ticksOf(timeout)));
  Progress progress(STDERR_FILENO, path, steady_clock::now());
  std::vector<kl::message::flat_message> objects;
  auto limit = steady_clock::now() + timeout + kCourierGrace;
  for (kl::message m;;) {
    const StreamSession::Next next = stream.next(m, std::min(limit, progress.nextLook()));
    const auto now = steady_clock::now();
    if (next == StreamSession::kArrived) {
      const Event event = eventOf(m);
      if (event.kind == EventKind::kEndless)
        throw endless(path, kl::message_view(event.content).get(kl::STD_GETALLID, kl::BADID));
      if (event.kind == EventKind::kDone) {
        refuseErrors(event.content, path, request.get(kl::SYS_CMD, kl::CMD_NOOP), timeout);
        return objects;
      }
      objects.push_back(event.content);
      limit = now + timeout + kCourierGrace;
    } else if (next == StreamSession::kEnded || now >= limit) {
      throw stuckLoader();
    }
    progress.look(now, objects.size());
  }
}

}  // namespace klctl
