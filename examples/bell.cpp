// bell: answers a request when the time has come that it names.
//
// CMD_POLL with the field `at` gets its reply then; CMD_GETCOUNT gives the number of those who wait.

#include <algorithm>
#include <chrono>
#include <map>

#include "bell.kl.h"
#include "kl/description.h"
#include "kl/looper.h"
#include "kl/wall_timer.h"

namespace {

constexpr unsigned long long kLongestWait = 24 * 60 * 60 * 1000;
constexpr std::size_t kMostRequests = 100;

unsigned long long now() {
  using namespace std::chrono;
  return static_cast<unsigned long long>(floor<milliseconds>(system_clock::now().time_since_epoch()).count());
}

class Bell : public kl::Handler {
 public:
  explicit Bell(kl::Looper& loop) : loop_(loop), alarm_(loop) {}

 private:
  using Waiting = std::multimap<unsigned long long, kl::message>;

  // A request that is kept gets no reply here; all others get theirs from the library.
  void handleCmd(const kl::message& request, unsigned int command) override {
    if (command != kl::CMD_POLL || kl::isError(refusal(request))) return Handler::handleCmd(request, command);
    waiting_.emplace(request.get(bell::AT, 0), request);
    loop_.blockLeave();
    ring();
  }

  kl::message cmdUnknown(const kl::message& request, unsigned int command) override {
    return command == kl::CMD_POLL ? refusal(request) : kl::errorMsg(kl::ERROR_NOTIMP, "");
  }

  kl::message cmdGetCount(const kl::message&) override {
    kl::message reply;
    reply.insert(kl::STD_GETALLNO, static_cast<unsigned int>(waiting_.size()));
    return reply;
  }

  kl::message refusal(const kl::message& request) const {
    if (!request.has(bell::AT)) return kl::errorMsg(kl::ERROR_MISSING, "");
    if (request.get(bell::AT, 0) > now() + kLongestWait)
      return kl::errorMsg(kl::ERROR_FAILED, "more than a day");
    if (waiting_.size() >= kMostRequests) return kl::errorMsg(kl::ERROR_BUSY, "");
    return {};
  }

  // Answers those whose time has come, and sleeps until that of the next one.
  void ring() {
    while (!waiting_.empty() && waiting_.begin()->first <= now()) answer({});
    if (waiting_.empty()) return alarm_.stop();
    const std::chrono::milliseconds next(waiting_.begin()->first);
    const bool isSet = alarm_.start(std::chrono::system_clock::time_point(next), [this] { ring(); });
    while (!isSet && !waiting_.empty()) answer(kl::errorMsg(kl::ERROR_FAILED, "no timer"));
  }

  // The first one.  A reply is addressed by the request that it answers.
  void answer(const kl::message& reply) {
    replyMessage(waiting_.begin()->second, reply);
    (void)forget(waiting_.begin());
  }

  Waiting::iterator forget(Waiting::iterator request) {
    loop_.unblockLeave();
    return waiting_.erase(request);
  }

  // A client that has ended waits no more.
  void cmdDisconnected(const kl::message& notice) override {
    Handler::cmdDisconnected(notice);
    const auto gone = notice.get(kl::SYS_FROM, {});
    for (auto request = waiting_.begin(); request != waiting_.end();) {
      const auto from = request->second.get(kl::SYS_FROM, {});
      const bool isOver =
          !gone.empty() &&
          std::mismatch(gone.begin(), gone.end(), from.begin(), from.end()).first == gone.end();
      request = isOver ? forget(request) : std::next(request);
    }
  }

  kl::Looper& loop_;
  Waiting waiting_;  // by their times
  kl::WallTimer alarm_;
};

}  // namespace

int main() {
  kl::Looper loop(kl::Looper::kAny, bell::SERVICE);
  loop.reportTooBig(true);
  kl::setDescription(bell::kDescription);
  Bell theBell(loop);
  loop.addHandler(bell::HANDLER_BELL, &theBell);
  loop.setupLeave(1);
  loop.run();
}
