#pragma once
// own_service.h: the loader as service 1.

#include <set>
#include <vector>

#include "kl/looper.h"
#include "routing/router.h"

namespace loader {

// What an operator may do to a service.  Each gives null, or why it cannot be done.
class ServiceActions {
 public:
  virtual const char* start(Service& service) = 0;
  virtual const char* stop(Service& service) = 0;
  virtual const char* restart(Service& service) = 0;
  // Null when the service has left or has been asked to: its state says how that ends.
  virtual const char* leave(Service& service) = 0;

 protected:
  ~ServiceActions() = default;
};

// What the own service needs of the loader around it.
class OwnServiceHost {
 public:
  // At the end of every callback: what it put into queues is to be written.
  virtual void settle() = 0;

 protected:
  ~OwnServiceHost() = default;
};

// Shows the table of services as objects, by the standard commands, under the same policies as any handler; and
// tells subscribers of rows that changed, in batches.
//
// Errors:    answered with error replies.
// Ownership: borrows everything that it is made with.
// Threads:   belongs to one thread.
// Cost:      a timer runs only while a batch waits.
class OwnService final : public LocalService, public TableListener {
 public:
  static constexpr std::ptrdiff_t kMostSubscriptions = 64;      // of one service
  static constexpr unsigned int kMostSubscriptionBytes = 1024;  // of the record of one

  OwnService(kl::ThinRunner& runner, ServiceTable& table, Outbox& outbox, ServiceActions& actions,
             OwnServiceHost& host)
      : runner_(runner), table_(table), outbox_(outbox), actions_(actions), host_(host) {}

  void handle(Service& asker, const kl::message& request) override;
  void rowChanged(unsigned int id) override;

  // The service is gone, and its subscriptions and what it waits for with it.
  void forget(const Service& gone);
  // It left: its subscriptions hold on, though it is told of nothing while it is away.
  void dropOrdersOf(const Service& gone);

  // Sends what changed since the last batch.
  void sendChanges();

 private:
  struct Subscription {
    Service* subscriber;
    kl::message record;  // the request without what is its own
  };

  // Who waits to hear whether a service has left.
  struct LeaveOrder {
    unsigned int id;  // of the service that was asked
    Service* asker;
    kl::message request;
  };

  void onBatchTimer();
  kl::message execute(const kl::message& request, unsigned int command);
  kl::message getObject(unsigned int id) const;
  kl::message getAll(const kl::message& request) const;
  kl::message getCount() const;
  kl::message setObject(const kl::message& request);
  void orderLeave(Service& asker, const kl::message& request);
  void answerLeaveOrders(const Service& service);
  void subscribe(Service& asker, const kl::message& request);
  bool hasRoomFor(const Service& asker, const kl::message& record) const;
  void unsubscribe(const kl::message& request);
  void reply(Service& asker, const kl::message& request, kl::message answer);
  void notify(const std::vector<kl::message::flat_message>& objects);

  kl::ThinRunner& runner_;
  ServiceTable& table_;
  Outbox& outbox_;
  ServiceActions& actions_;
  OwnServiceHost& host_;
  kl::policies policies_;
  std::vector<Subscription> subscriptions_;
  std::vector<LeaveOrder> leaveOrders_;
  std::set<unsigned int> changed_;
};

// One row of the table as an object.
kl::message rowOf(const Service& service);

}  // namespace loader
