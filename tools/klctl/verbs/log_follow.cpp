// Following: the courier subscribes first and reads what is there then, so that nothing comes in between; what it
// hears of twice it gives once.  When the service is gone it asks every half second until somebody answers, and goes on
// behind the last line that it gave.
//
// F1  every line is given once: while one service lives their ids go up, and of another one only later lines are asked

#include "verbs/log_follow.h"

#include "ask/courier_process.h"
#include "ask/events.h"
#include "ask/fetch.h"
#include "ask/interrupt.h"
#include "ask/session.h"
#include "ask/stream_session.h"
#include "kl/bind.h"
#include "kl/services.h"
#include "output/show.h"
#include "values/dictionary.h"
#include "values/failure.h"

namespace klctl {
namespace {

constexpr unsigned int kOwnNumber = 1;
constexpr unsigned int kRetryTicks = 50;

class LogFollower : public kl::Handler {
 public:
  LogFollower(const kl::message& request, int timeoutTicks, const Give& give)
      : filter_(request), timeoutTicks_(timeoutTicks), give_(give) {
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
      giveLines(reply);
      if (!reply.has(kl::STD_GETALLID)) break;
      request.insert(kl::STD_GETALLID, reply.get(kl::STD_GETALLID, kl::BADID));
    }
    give_(toMessage(EventKind::kComplete, {}));
  }

  void giveLines(const kl::message& from) {
    for (const kl::message object : from.get(kl::STD_OBJS, {})) {
      const unsigned int id = object.get(kl::STD_ID, 0);
      if (lastId_ != 0 && static_cast<int>(id - lastId_) <= 0) continue;  // F1
      lastId_ = id;
      filter_.insert(kl::LOG_SINCE, object.get(kl::LOG_TIME, 0) + 1);
      give_(toMessage(EventKind::kObject, object));
    }
    if (!from.has(kl::LOG_SKIPPED)) return;
    kl::message skipped;
    skipped.insert(kl::LOG_SKIPPED, from.get(kl::LOG_SKIPPED, 0));
    give_(toMessage(EventKind::kObject, skipped));
  }

  void lose(const kl::message& reason) {
    give_(toMessage(EventKind::kLost, reason));
    (void)kl::getLooper()->addTimer(this, kl::bind<LogFollower, &LogFollower::begin>(), kRetryTicks);
  }

  // Whatever rights the notifications come with: klctl asked for them.
  bool checkPolicy(const kl::message&) override { return true; }

  void handleCmd(const kl::message& m, unsigned int command) override {
    if (command == kl::CMD_NOTIFY) giveLines(m);
    else Handler::handleCmd(m, command);
  }

  void cmdDisconnected(const kl::message& m) override {
    Handler::cmdDisconnected(m);
    if (m.get(kl::SYS_FROM, {}) == std::vector<unsigned int>{kl::SERVICE_LOG}) lose(m);
  }

  kl::message filter_;
  int timeoutTicks_;
  const Give& give_;
  unsigned int lastId_ = 0;  // 0: none was given since the service began
};

// What the user sees of events.
class LogReport {
 public:
  LogReport(const CommandLine& line, const LogTopics& topics, const PrintLog& print)
      : topics_(topics), print_(print), isJson_(line.json), inColour_(wantsColour()) {
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
      return print_("",
                    std::to_string(object.get(kl::LOG_SKIPPED, 0)) + " lines came too fast and are left out");
    print_(isJson_ ? jsonLine(toJson(object, names_)) : logLine(object, topics_, inColour_), "");
  }

  void complete() {
    if (isLost_) print_("", "log is back");
    isLost_ = false;
    wasThere_ = true;
  }

  void lost(const kl::message& reason) {
    unsigned int code = kl::ERROR_OK;
    const bool isError = kl::isError(reason, &code);
    if (!wasThere_ && isError && code != kl::ERROR_BRKPATH) throw refused("log", reason);
    if (!std::exchange(isLost_, true))
      print_("", "log is gone: " + (isError ? kl::getError(reason) : "it has ended") + "; waiting for it");
  }

  const LogTopics& topics_;
  const PrintLog& print_;
  FieldNames names_;
  bool isJson_;
  bool inColour_;
  bool isLost_ = false;
  bool wasThere_ = false;
};

}  // namespace

Job logJob(const kl::message& request, int timeoutTicks) {
  return [=](JobLooper& looper, const Give& give) {
    LogFollower follower(request, timeoutTicks, give);
    looper.addHandler(kOwnNumber, &follower);
    follower.begin();
    looper.run();
  };
}

void followLog(const CommandLine& line, const LogTopics& topics, const PrintLog& print) {
  const kl::message request = logRequest(line, topics);
  refuseOversized(request);
  const Interrupt interrupt;
  StreamSession stream(line.timeout, logJob(request, ticksOf(line.timeout)));
  LogReport report(line, topics, print);
  for (kl::message m; stream.next(m, {}, interrupt.fd()) == StreamSession::kMessage;) report.take(eventOf(m));
}

}  // namespace klctl
