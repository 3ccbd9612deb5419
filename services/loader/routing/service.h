#pragma once
// service.h: one row of the loader's table: a service that is configured, connected, or both.

#include <sys/types.h>

#include <string>

#include "kl/services.h"
#include "quota/accounts.h"
#include "routing/access.h"
#include "routing/acquaintances.h"
#include "routing/held_queue.h"
#include "routing/open_requests.h"
#include "routing/senders.h"
#include "routing/shares.h"
#include "routing/subscriptions.h"
#include "transport/buffer.h"

namespace loader {

class Connection;
enum class LifeState : unsigned char;  // life/states.h

// The traffic between the loader and one service.  Messages in were delivered to it, messages out were sent by it.
struct Traffic {
  unsigned long long messagesIn = 0;
  unsigned long long messagesOut = 0;
  unsigned long long bytesIn = 0;
  unsigned long long bytesOut = 0;
  unsigned long long drops = 0;
  unsigned long long denials = 0;  // of what it sent: not delivered because of its rights

  Traffic& operator+=(const Traffic& other) {
    messagesIn += other.messagesIn;
    messagesOut += other.messagesOut;
    bytesIn += other.bytesIn;
    bytesOut += other.bytesOut;
    drops += other.drops;
    denials += other.denials;
    return *this;
  }
};

// A service by its id.  Frames on their way to the process wait in `out`; those that it is not to see yet wait in
// `held`: it was asked to leave, or it is not there and somebody counts on its coming.
//
// Ownership: the table owns services; everybody else borrows them until the table removes them.
// Threads:   belongs to one thread.
struct Service {
  explicit Service(unsigned int serviceId) : id(serviceId) {}

  unsigned int id;
  std::string name;
  bool isConfigured = false;  // else it has only connected
  bool isDismissed = false;   // nobody configures it any more, and it ends
  pid_t pid = 0;              // 0 while no process is known
  uid_t uid = 0;
  std::string user;        // its name
  SenderRights rights;     // of its requests, from its registration on
  DestinationRules rules;  // for requests to it
  unsigned int starts = 0;
  std::string lastEnd;  // how its last process ended; empty before

  // Set by the lifecycle together: the state, what the table shows of it, and whether messages for it are held.
  LifeState life{};
  unsigned int state = kl::SVC_STATE_STOPPED;
  bool isHeldFor = false;

  unsigned int leaveValue = 0;  // the value of its last CTRL_LEAVE_VALUE; 0: it may not be asked to leave
  bool wantsToLeave = false;    // it said so when it could not
  unsigned int wakeAt = 0;  // the second since 1970 at which it wants to be started if it has left; 0: none
  unsigned int lastActive = 0;    // seconds: when a message for it or from it came last
  unsigned int lastSent = 0;      // seconds: when one from it came last
  unsigned long long bornAt = 0;  // the moment at which it came; a leave does not end it.  0: it is gone

  Account* account = nullptr;        // what it takes is taken from there; null: nobody counts
  Connection* connection = nullptr;  // what it is connected by; null where somebody else empties `out`
  Buffer out;
  HeldQueue held;
  Shares shares;         // in both
  bool isDirty = false;  // something was put into `out` since the last write
  Traffic traffic;
  Senders senders;  // of the messages in
  RequestLists requests;
  SubscriptionLists subscriptions;
  Acquaintances acquaintances;  // of one that is not configured

  // From now on what it takes is taken from `account`.  Needs: it has no open requests.
  void chargeTo(Account& payer) {
    account = &payer;
    out.chargeTo(account, Resource::kQueueBytes);
    held.chargeTo(account);
    shares.chargeTo(account);
  }

  // From its registration until its connection closes.
  void connect(Connection* by = nullptr) {
    isConnected_ = true;
    connection = by;
  }
  void disconnect() {
    isConnected_ = false;
    connection = nullptr;
  }
  bool isConnected() const { return isConnected_; }

  std::size_t waiting() const { return out.size() + held.size(); }

 private:
  bool isConnected_ = false;
};

}  // namespace loader
