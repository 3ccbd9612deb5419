#pragma once
// log_service.h: the log service among the other services.

#include "asking/line_filter.h"
#include "asking/rule_table.h"
#include "asking/viewers.h"
#include "intake/clients.h"
#include "kl/looper.h"

namespace logd {

// The message loop of the process, which is also the table of lines.
//
// Errors:    as every Looper: without a loader the process ends.
// Ownership: borrows book, listener and users.
// Threads:   belongs to one thread.
// Cost:      followers are sent new lines together, every 50 ms at most, in at most 32 messages for each filter;
//            lines beyond that are left out and counted.
class LogService : public kl::Looper {
 public:
  LogService(const Limits& limits, LogBook& book, const Listener& listener, const common::KnownUsers& users,
             pid_t loader = 0);
  ~LogService() override;

 private:
  void handleCmd(const kl::message& request, unsigned int command) override;
  kl::message cmdGet(const kl::message& request) override;
  kl::message cmdGetObj(const kl::message& request, unsigned int id) override;
  kl::message cmdGetAll(const kl::message& request, unsigned int start, unsigned int count) override;
  kl::message cmdGetCount(const kl::message& request) override;
  bool shouldNotify(const kl::message& record, const kl::message& notification) override;

  void changeSubscription(kl::message request, unsigned int command);
  bool isFull(const kl::message& request) const;
  void onNews();
  void tellFollowers();
  void tellGroup(const LineFilter& filter);
  void onTick();
  void onHangup(int sig);
  void onEndSignal(int sig);
  static void drainAtExit();

  LogBook& book_;
  Clients clients_;
  RuleTable rules_;
  Viewers viewers_;
  bool tellsSoon_ = false;             // the timer runs
  const LineFilter* group_ = nullptr;  // whom the notification in hand is for; null: everyone
};

}  // namespace logd
