// Leaving, the data that outlives the process, and the time of day.
//
// A process that declares a leave value can be ended by the loader while no service needs it, and started again by the
// next message for it.  The loader knows at any time whether the process could leave now:
//
//     value  open blocks   could leave   sent to the loader on the way there
//     0      any           no            CTRL_LEAVE_VALUE 0, if the value was withdrawn while nothing blocked
//     v      0             yes           CTRL_LEAVE_VALUE v
//     v      1 or more     no            CTRL_LEAVE_VALUE 0, at the first block
//
// V1  one block is open from the construction until run()
// V2  messages that came before CTRL_LEAVE are dispatched before the answer, or they would be lost with the queue.  An
//     exchange meanwhile answers first: until then the loader holds back the reply that it waits for
//
// Persistent data, a message:
//
//     0xa8000001   message[]   the subscriptions of the Looper itself
//     0x88000002   u32[]       the numbers of the handlers that have data
//     0xa8000003   message[]   their data, in the same order

#include <algorithm>
#include <ctime>
#include <utility>

#include "kl/looper.h"
#include "kl/services.h"

namespace kl {
namespace {

constexpr field<std::vector<unsigned int>> kHandlerIDs{0x88000002};
constexpr field<std::vector<message::flat_message>> kHandlerData{0xa8000003};

constexpr unsigned int kShortestData = 3;  // a message without fields is shorter
constexpr int kTimezoneUnknown = -1;
constexpr int kTimezoneTicks = 6000;

bool holdsData(const message& m) { return m.max_length() >= kShortestData; }

}  // namespace

void Looper::handleCtrl(unsigned int code) {
  if (code != CTRL_LEAVE) return;
  leaveAsked_ = true;
  dispatchQueue();  // V2
  if (!std::exchange(leaveAsked_, false)) return;
  if (canLeave()) leave();
  else sendCtrl(CTRL_REFUSED);
}

void Looper::leave() {
  message data;
  savePermData(data);
  if (holdsData(data)) {
    message m;
    m.insert(SYS_TO, {SERVICE_LOADER});
    m.insert(SYS_CTRL, CTRL_LEFT);
    m.insert(SYS_CTRL_ARG, 1);
    m.insert(READY_DATA, data.flattened());
    sendMessage(m);
  }
  flushMessages();
  leaving_ = true;
  stop_ = true;
}

bool Looper::canLeave() { return leaveValue_ != 0 && leaveBlocks_ == 0; }

void Looper::setupLeave(unsigned int value) {
  if (value == leaveValue_) return;
  leaveValue_ = value;
  if (leaveBlocks_ == 0) sendCtrl(CTRL_LEAVE_VALUE, value);
}

void Looper::blockLeave() {
  ++leaveBlocks_;
  if (leaveBlocks_ == 1 && leaveValue_ != 0) sendCtrl(CTRL_LEAVE_VALUE, 0);
}

void Looper::unblockLeave() {
  --leaveBlocks_;
  if (leaveBlocks_ == 0 && leaveValue_ != 0) sendCtrl(CTRL_LEAVE_VALUE, leaveValue_);
}

void Looper::tellLeave() { sendCtrl(CTRL_WANT_LEAVE); }

void Looper::savePermData(message& data) {
  Handler::savePermData(data);
  bool found = false;
  for (auto entry = handlers_.begin(); entry != handlers_.end();) {  // handlers may come and go meanwhile
    const unsigned int id = entry->first;
    message handlerData;
    entry->second->savePermData(handlerData);
    if (holdsData(handlerData)) {
      data.get_u32_array_ref(kHandlerIDs)->push_back(id);
      data.get_message_array_ref(kHandlerData)->push_back(handlerData.flattened());
      found = true;
    }
    entry = handlers_.upper_bound(id);
  }
  if (found) return;
  data.remove(kHandlerIDs);
  data.remove(kHandlerData);
}

void Looper::loadPermData(const message& data) {
  Handler::loadPermData(data);
  const auto ids = data.get(kHandlerIDs, {});
  const auto handlerData = data.get(kHandlerData, {});
  for (std::size_t i = 0; i < std::min(ids.size(), handlerData.size()); ++i)
    pendingPermData_.insert({ids[i], handlerData[i]});
}

int Looper::getTimezone() {
  if (timezone_ != kTimezoneUnknown) return timezone_;
  subscribe({SERVICE_SYSTEM, 0}, SYSTEM_TIMEZONE_CHANGED, message());
  message m;
  m.insert(SYS_CMD, CMD_GET);
  m.insert(SYS_TO, {SERVICE_SYSTEM, 0});
  const message reply = exchangeMessage(m, kTimezoneTicks);
  timezone_ = isError(reply) ? 0 : static_cast<int>(reply.get(SYSTEM_TIMEZONE, 0));
  return timezone_;
}

unsigned int Looper::getLocaltime() {
  return static_cast<unsigned int>(std::time(nullptr)) + static_cast<unsigned int>(getTimezone());
}

}  // namespace kl
