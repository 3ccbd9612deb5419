// The courier subscribes first and then reads the lines that are there, so that none is missed in between; a line that
// comes twice is given once.  When the service is gone the courier asks every half second until there is an answer, and
// continues after the last line that it gave.
//
// F1  every line is given once: while one service lives their ids go up, and of another one only later lines are asked

#include "verbs/log_follow.h"

#include <deque>
#include <optional>
#include <string>
#include <utility>

#include "ask/events.h"
#include "ask/session.h"
#include "kl/bind.h"
#include "kl/services.h"
#include "output/show.h"
#include "values/dictionary.h"
#include "values/failure.h"
#include "verbs/log_filter.h"

namespace klctl {
namespace {

constexpr unsigned int kOwnNumber = 1;
constexpr unsigned int kRetryTicks = 50;

class LogFollower : public kl::Handler {
 public:
  LogFollower(const kl::message& request, int timeoutTicks, const Emit& emit)
      : filter_(request), timeoutTicks_(timeoutTicks), emit_(emit) {
    kl::cleanSys(filter_);
  }

  // Needs: to be one of the Looper's handlers.
  void begin() {
    lastId_ = 0;
    kl::message following(filter_);
    following.remove(kl::LOG_SINCE);
    subscribe({kl::SERVICE_LOG}, kl::CMD_NOTIFY, following);
    readAll();
  }

 private:
  void readAll() {
    kl::message request(filter_);
    request.insert(kl::SYS_TO, {kl::SERVICE_LOG});
    while (true) {
      kl::message m(request);
      const kl::message reply = exchangeCmd(m, kl::CMD_GETALL, timeoutTicks_);
      if (kl::isError(reply)) return lose(reply);
      emitLines(reply);
      if (!reply.has(kl::STD_GETALLID)) break;
      request.insert(kl::STD_GETALLID, reply.get(kl::STD_GETALLID, kl::BADID));
    }
    emit_(toMessage(EventKind::kComplete, {}));
  }

  void emitLines(const kl::message& from) {
    for (const kl::message object : from.get(kl::STD_OBJS, {})) {
      const unsigned int id = object.get(kl::STD_ID, 0);
      if (lastId_ != 0 && static_cast<int>(id - lastId_) <= 0) continue;  // F1
      lastId_ = id;
      filter_.insert(kl::LOG_SINCE, object.get(kl::LOG_TIME, 0) + 1);
      emit_(toMessage(EventKind::kObject, object));
    }
    if (!from.has(kl::LOG_SKIPPED)) return;
    kl::message skipped;
    skipped.insert(kl::LOG_SKIPPED, from.get(kl::LOG_SKIPPED, 0));
    emit_(toMessage(EventKind::kObject, skipped));
  }

  void lose(const kl::message& reason) {
    emit_(toMessage(EventKind::kLost, reason));
    (void)kl::getLooper()->addTimer(this, kl::bind<LogFollower, &LogFollower::begin>(), kRetryTicks);
  }

  // Notifications may come with any rights: klctl subscribed to them.
  bool checkPolicy(const kl::message&) override { return true; }

  void handleCmd(const kl::message& m, unsigned int command) override {
    if (command == kl::CMD_NOTIFY) emitLines(m);
    else Handler::handleCmd(m, command);
  }

  void cmdDisconnected(const kl::message& m) override {
    Handler::cmdDisconnected(m);
    if (m.get(kl::SYS_FROM, {}) == std::vector<unsigned int>{kl::SERVICE_LOG}) lose(m);
  }

  kl::message filter_;
  int timeoutTicks_;
  const Emit& emit_;
  unsigned int lastId_ = 0;  // 0: none was given since the service began
};

// Prints the events.
class LogReport {
 public:
  LogReport(const CommandLine& line, const LogTopics& topics, LogFilter& filter, const Channels& channels)
      : topics_(topics),
        filter_(filter),
        channels_(channels),
        last_(line.log.last),
        isJson_(line.json),
        inColour_(wantsColour()) {
    if (isJson_) names_ = namesFor("log", line.fields);
  }

  void take(const Event& event) {
    const kl::message content(event.content);
    if (event.kind == EventKind::kObject) object(content);
    else if (event.kind == EventKind::kComplete) complete();
    else if (event.kind == EventKind::kLost) lost(content);
  }

 private:
  void object(const kl::message& object) {
    if (!object.has(kl::STD_ID))
      return channels_.remark(std::to_string(object.get(kl::LOG_SKIPPED, 0)) +
                              " lines came too fast and are left out");
    if (!filter_.passes(object)) return;
    std::string text = isJson_ ? jsonLine(toJson(object, names_)) : logLine(object, topics_, inColour_);
    if (!last_) return channels_.print(text);
    newest_.push_back(std::move(text));
    if (newest_.size() > *last_) newest_.pop_front();
  }

  // Of the lines that were there, the newest; those that come later are all shown.
  void complete() {
    for (const std::string& text : newest_) channels_.print(text);
    newest_.clear();
    last_.reset();
    if (isLost_) channels_.remark("log is back");
    isLost_ = false;
    wasThere_ = true;
  }

  void lost(const kl::message& reason) {
    unsigned int code = kl::ERROR_OK;
    const bool isError = kl::isError(reason, &code);
    if (!wasThere_ && isError && code != kl::ERROR_BRKPATH) throw refused("log", reason, kl::CMD_GETALL);
    if (!std::exchange(isLost_, true))
      channels_.remark("log is gone: " + (isError ? kl::getError(reason) : "it has ended") +
                       "; waiting for it");
  }

  const LogTopics& topics_;
  LogFilter& filter_;
  const Channels& channels_;
  std::optional<unsigned int> last_;  // until what was there is complete
  std::deque<std::string> newest_;
  FieldNames names_;
  bool isJson_;
  bool inColour_;
  bool isLost_ = false;
  bool wasThere_ = false;
};

}  // namespace

Job logJob(const kl::message& request, int timeoutTicks) {
  return [=](JobLooper& looper, const Emit& emit) {
    LogFollower follower(request, timeoutTicks, emit);
    looper.addHandler(kOwnNumber, &follower);
    follower.begin();
    looper.run();
  };
}

void followLog(const CommandLine& line, const Channels& channels) {
  const LogTopics topics(channels.exchange);
  LogFilter filter(line.log, topics, channels.exchange);
  const kl::message request = logRequest(filter);
  refuseOversized(request);
  remarkLimits(channels);
  channels.disconnect();
  const Interrupt interrupt;
  StreamSession stream(line.timeout, logJob(request, ticksOf(line.timeout)));
  LogReport report(line, topics, filter, channels);
  for (kl::message m; stream.next(m, {}, interrupt.fd()) == StreamSession::kArrived;) report.take(eventOf(m));
}

}  // namespace klctl
