#pragma once
// taps.h: who looks at the messages that pass.

#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "kl/runner.h"
#include "routing/open_requests.h"
#include "routing/service_table.h"
#include "routing/witness.h"
#include "services/common/timer.h"
#include "watch/tap.h"

namespace loader {

// Answers CMD_TAP, and shows each tap what passes its filter.
//
// T1  what is sent to a tap, and what its reader and the loader say to each other, no tap shows
// T2  nothing that is tapped waits for a tap, or is lost because of it
// T3  while there is no tap, nobody is told of a frame
//
// Errors:    answered with error replies.
// Ownership: borrows everything that it is made with.
// Threads:   belongs to one thread.
// Cost:      for each message that passes a look at each filter; a timer runs only while something waits to be shown.
class Taps final : public Witness {
 public:
  static constexpr std::size_t kMost = 4;
  static constexpr unsigned int kBatchTicks = 5;

  using Clock = std::function<common::Moment()>;

  // `tell` makes somebody the one who is told of each frame, or nobody; `clock` is that of the requests.
  Taps(kl::ThinRunner& runner, const ServiceTable& services, const OpenRequests& requests, Outbox& outbox,
       Clock clock, std::function<void(Witness*)> tell, std::function<void()> writeQueues)
      : services_(services),
        requests_(requests),
        outbox_(outbox),
        clock_(std::move(clock)),
        tell_(std::move(tell)),
        writeQueues_(std::move(writeQueues)),
        batchTimer_(runner, *this) {}

  // The reply to CMD_TAP.  `request` is as any handler would get it, and its asker may control the loader.
  kl::message answer(Service& asker, const kl::message& request);

  // The service is gone or has left.
  void forget(const Service& service);

  // A pass is over: sends what would make a message of a good size.  The rest waits for more, or for the timer.
  void onPassOver();
  // Called while something waits to be shown, every 50 ms.
  void onTimer();
  bool isAtRest() const { return !batchTimer_.isRunning(); }

  void onFrame(const Service& sender, const Envelope& e) override;
  void onOwnMessage(const Service& to, const kl::message& m) override;

  std::size_t size() const { return taps_.size(); }

 private:
  // A request to the loader itself, which is answered at once and stands in no book.
  struct OwnRequest {
    unsigned int caller;
    unsigned int id;
    unsigned int command;
  };

  void sendTo(Tap& tap);
  void show(const PassingMessage& message);
  void addRequestOf(PassingMessage& reply, const Service* caller, const Service* callee, Path inside) const;
  bool isReader(const Service& service) const;
  void noteSize();

  const ServiceTable& services_;
  const OpenRequests& requests_;
  Outbox& outbox_;
  Clock clock_;
  std::function<void(Witness*)> tell_;
  std::function<void()> writeQueues_;
  std::vector<std::unique_ptr<Tap>> taps_;
  std::optional<OwnRequest> ownRequest_;  // the last one
  bool isSending_ = false;
  common::Timer<&Taps::onTimer> batchTimer_;
};

}  // namespace loader
