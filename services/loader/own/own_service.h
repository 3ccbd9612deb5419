#pragma once
// own_service.h: the loader as service 1.

#include <functional>
#include <set>
#include <utility>
#include <vector>

#include "kl/looper.h"
#include "kl/rights.h"
#include "own/crash_table.h"
#include "own/rights_explainer.h"
#include "routing/outbox.h"
#include "routing/service_table.h"
#include "routing/subscriptions.h"
#include "services/common/timer.h"
#include "watch/request_table.h"
#include "watch/taps.h"
#include "watch/traffic_table.h"

namespace loader {

// Shows the table of services as objects, by the standard commands, under the same policies as any handler, and
// notifies subscribers of rows that changed, in batches.  Like any process the loader says what its messages are made
// of, at HANDLER_DESCRIPTION.
//
// Errors:    answered with error replies.
// Ownership: borrows everything that it is made with.
// Threads:   belongs to one thread.
// Cost:      a timer runs only while a batch waits.
class OwnService {
 public:
  static constexpr unsigned int kMostSubscriptions = 64;        // of one service
  static constexpr unsigned int kMostSubscriptionBytes = 1024;  // of the record of one
  static constexpr std::size_t kMostUnread = 256 * 1024;        // bytes of the loader's own for one caller

  // Carries out an SVC_ACTION on a service; null, or why it cannot be done.  Null for SVC_LEAVE means that the
  // service has left or has been asked to: its state shows how that ends.
  using Order = std::function<const char*(Service& service, unsigned int action)>;
  using WriteQueues = std::function<void()>;  // writes what the timer has put into queues

  // `self` is the row of the loader itself.
  OwnService(kl::ThinRunner& runner, Service& self, ServiceTable& table, Subscriptions& subscriptions,
             Outbox& outbox, Order order, WriteQueues writeQueues)
      : self_(self),
        table_(table),
        subscriptions_(subscriptions),
        outbox_(outbox),
        order_(std::move(order)),
        writeQueues_(std::move(writeQueues)),
        batchTimer_(runner, *this) {
    for (const auto& [command, bits] : commands_) policies_.set_policy(command, bits);
  }

  // The explainer answers questions about rights; without one they are not implemented.
  void setExplainer(const RightsExplainer& explainer) { explainer_ = &explainer; }

  // Where the open requests are; without them nobody asks about any.
  void setRequests(const RequestTable& requests) { requests_ = &requests; }
  // The crashes that LOADER_CRASHES shows; without them there is no such handler.
  void setCrashes(const CrashTable& crashes) { crashes_ = &crashes; }

  // Who sends to whom, at LOADER_TRAFFIC; without it there is no such handler.
  void setTraffic(const TrafficTable& traffic) { traffic_ = &traffic; }

  // How many connections there have been; without it the loader's row does not say.
  void setConnections(const unsigned long long& count) { connections_ = &count; }

  // The taps show the messages that pass; without them CMD_TAP is not implemented.
  void setTaps(Taps& taps) { taps_ = &taps; }

  // Reads the configuration anew and gives the reply; without it that is not implemented.
  void setReload(std::function<kl::message(const kl::message& request)> reload) {
    reload_ = std::move(reload);
  }

  // `request` is as any service would get it: path without the loader's id, return path with the caller's in front.
  void handle(Service& caller, const kl::message& request);
  // A row came, changed or went.
  void onRowChanged(unsigned int id);

  // The service is gone or has left, and what it waits for is forgotten.  The subscriptions of one that left hold on,
  // though it is sent nothing while it is away.
  void forgetOrdersOf(const Service& caller);

  // Sends what changed since the last batch.
  void sendChanges();

 private:
  // A request that is answered when a service has left, or has not.
  struct LeaveOrder {
    unsigned int id;  // of the service that was asked
    Service* caller;
    kl::message request;
  };

  void onBatchTimer();
  void handleForTable(Service& caller, const kl::message& request, unsigned int command);
  void handleReload(Service& caller, const kl::message& request);
  void handleForRequests(Service& caller, const kl::message& request, unsigned int command);
  kl::message rowOf(const Service& service) const;
  void addTotals(kl::message& row) const;
  std::string whyNotAllowed(const kl::message& request) const;
  kl::message execute(const kl::message& request, unsigned int command);
  kl::message getObject(unsigned int id);
  kl::message getAll(const kl::message& request);
  kl::message getCount() const;
  kl::message setObject(const kl::message& request);
  void orderLeave(Service& caller, const kl::message& request);
  void answerLeaveOrders(const Service& service);
  void subscribe(Service& caller, const kl::message& request);
  void unsubscribe(Service& caller, const kl::message& request);
  bool hasUnread(Service& caller) const;
  void reply(Service& caller, const kl::message& request, kl::message answer,
             Urgency urgency = Urgency::kReply);
  void notify(const std::vector<kl::message::flat_message>& objects);

  Service& self_;
  ServiceTable& table_;
  Subscriptions& subscriptions_;
  Outbox& outbox_;
  Order order_;
  WriteQueues writeQueues_;
  const CommandRights commands_ = loaderCommands();
  const RightsExplainer* explainer_ = nullptr;
  const RequestTable* requests_ = nullptr;
  const CrashTable* crashes_ = nullptr;
  const TrafficTable* traffic_ = nullptr;
  const unsigned long long* connections_ = nullptr;
  Taps* taps_ = nullptr;
  std::function<kl::message(const kl::message& request)> reload_;
  kl::policies policies_;
  std::vector<LeaveOrder> leaveOrders_;
  std::set<unsigned int> changed_;
  common::Timer<&OwnService::onBatchTimer> batchTimer_;
};

// One row of the table as an object.
kl::message objectOf(const Service& service);

}  // namespace loader
