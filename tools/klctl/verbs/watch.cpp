// The courier follows the table, klctl prints the changes.
//
// W1  objects_ is what was printed, or will be when the first fetch is complete
// W2  while the table is fetched again, an object that did not change is not printed

#include "verbs/watch.h"

#include <vector>

#include "ask/fetch.h"
#include "ask/session.h"
#include "kl/watcher.h"
#include "output/show.h"
#include "services/common/text.h"
#include "values/failure.h"

namespace klctl {
namespace {

constexpr unsigned int kOwnNumber = 1;

// Emits the callbacks of the watcher as events.
class EmittingWatcher : public kl::Watcher {
 public:
  explicit EmittingWatcher(const Emit& emit) : emit_(emit) {}
  void objectChanged(const kl::message& object) override { emit_(toMessage(EventKind::kObject, object)); }
  void objectRemoved(unsigned int id) override {
    kl::message m;
    m.insert(kl::STD_ID, id);
    emit_(toMessage(EventKind::kRemoved, m));
  }
  void tableComplete() override { emit_(toMessage(EventKind::kComplete, {})); }
  void providerLost(const kl::message& reason) override { emit_(toMessage(EventKind::kLost, reason)); }

 private:
  const Emit& emit_;
};

// True for an error that a later attempt may not meet.
bool mayPass(unsigned int error) {
  return error == kl::ERROR_BRKPATH || error == kl::ERROR_TIMEOUT || error == kl::ERROR_BUSY;
}

}  // namespace

Job watchJob(const kl::message& request, int timeoutTicks) {
  return [=](JobLooper& looper, const Emit& emit) {
    EmittingWatcher watcher(emit);
    looper.addHandler(kOwnNumber, &watcher);
    watcher.setTimeout(static_cast<unsigned int>(timeoutTicks));
    kl::message extra(request);
    kl::cleanSys(extra);
    watcher.watch(request.get(kl::SYS_TO, {}), extra);
    looper.run();
  };
}

WatchReport::Text WatchReport::take(const Event& event) {
  const kl::message content(event.content);
  switch (event.kind) {
    case EventKind::kObject: return {changed(content), ""};
    case EventKind::kRemoved: return {removed(content.get(kl::STD_ID, kl::BADID)), ""};
    case EventKind::kComplete: return complete();
    case EventKind::kLost: return {"", lost(content)};
    default: return {};
  }
}

std::string WatchReport::changed(const kl::message& object) {
  const unsigned int id = object.get(kl::STD_ID, kl::BADID);
  const auto known = objects_.find(id);
  if (!complete_ && known != objects_.end() && known->second == object) return {};  // W2
  objects_[id] = object;
  return everShown_ || isAtOnce() ? show(id, object) : "";
}

std::string WatchReport::removed(unsigned int id) {
  objects_.erase(id);
  if (!everShown_ && !isAtOnce()) return {};
  kl::message dead;
  dead.insert(kl::STD_ID, id);
  dead.insert(kl::STD_DEAD, 1);
  return isAtOnce() ? show(id, dead) : title(id) + " is gone\n";
}

WatchReport::Text WatchReport::complete() {
  Text text;
  if (!everShown_ && !isAtOnce()) {
    std::vector<Json> rows;
    for (const auto& [id, object] : objects_) rows.push_back(toJson(object, prepared_.names));
    text.results = objectsTable(rows, columnsOf(rows, prepared_.names), lineWidth(), prepared_.names);
    if (rows.empty() && isTerminal_) text.remark = prepared_.path + ": no objects yet";
  }
  if (lost_) text.remark = prepared_.path + " is back";
  complete_ = everShown_ = true;
  lost_ = false;
  return text;
}

std::string WatchReport::lost(const kl::message& reason) {
  unsigned int code = kl::ERROR_OK;
  const bool isErrorReply = kl::isError(reason, &code);
  if (isErrorReply && !everShown_ && !mayPass(code)) throw refused(prepared_.path, reason, kl::CMD_GETALL);
  complete_ = false;
  lost_ = true;
  const std::string why = isErrorReply ? kl::getError(reason) : "it has ended";
  return prepared_.path + (everShown_ ? " is gone: " : " is not there: ") + why + "; waiting for it";
}

std::string WatchReport::show(unsigned int id, const kl::message& object) const {
  if (line_.dump) return dumpText(object, prepared_.names);
  const Json shown = toJson(object, prepared_.names);
  if (line_.json) return jsonLine(shown);
  return title(id) + "\n" + objectTable(shown, prepared_.names);
}

std::string WatchReport::title(unsigned int id) const {
  return "\n" + common::printable(prepared_.path) + ":" + std::to_string(id);
}

void watchTable(const CommandLine& line, const Channels& channels) {
  const PreparedRequest prepared = prepareRequest(line, kl::CMD_GETALL, channels.exchange);
  channels.disconnect();
  refuseOversized(prepared.request);
  const Interrupt interrupt;
  StreamSession stream(line.timeout, watchJob(prepared.request, ticksOf(line.timeout)));
  WatchReport report(line, prepared, channels.isTerminal);
  for (kl::message m; stream.next(m, {}, interrupt.fd()) == StreamSession::kArrived;) {
    const auto [results, remark] = report.take(eventOf(m));
    if (!results.empty()) channels.print(results);
    if (!remark.empty()) channels.remark(remark);
  }
}

}  // namespace klctl
