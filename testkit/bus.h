#pragma once
// bus.h: the loader's side of one process, and the time in which it runs.

#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "kl/looper.h"
#include "kl/test.h"
#include "services/loader/routing/router.h"
#include "testkit/calls.h"
#include "testkit/wire.h"

namespace kl::test {

// Carries frames between the service under test, which stands behind a Wire, and the members, by the loader's own router.
// The other work of the loader (registrations, leaving, ends) is played here, in the same order.
//
//     the service --Wire--> pump --route--> queues --distribute--> Wire, mail of the members
//                            ^                                       |
//                            '------------ scripts ------------------'
//
// B1  time passes only in run() and in poll(), and never while something is on its way
// B2  what is wrong is noted, and reported when no frame of the library lies between here and the test
class Bus final : public CallsPlayer {
 public:
  using Script = Peer::Script;
  using Condition = std::function<bool()>;

  Bus();
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;
  ~Bus();

  // --- The service.
  void makeLooper(unsigned int service);
  void startAgain();
  unsigned int service() const { return service_ != nullptr ? service_->id : 0; }
  TestBus::Leave askToLeave();
  bool mayLeave() const;
  bool wantsToLeave() const { return service_ != nullptr && service_->wantsToLeave; }

  message settings;
  message leaveData;
  std::vector<unsigned int> controls;
  std::map<unsigned int, Script> loaderScripts;
  Wire wire;

  // --- The members.
  loader::Service& join(Member& member, unsigned int id);
  void part(loader::Service& row);
  void route(loader::Service& from, const message& m);
  void sendLater(unsigned int ticks, unsigned int member, const message& m);

  // --- Time.
  unsigned int now() const override { return kFirstTick + static_cast<unsigned int>(elapsed_); }
  timespec wallTime() const override;
  void setWallClock(std::time_t seconds);
  Moment elapsed() const { return elapsed_; }
  int poll(pollfd* entries, nfds_t count, int timeoutMs) override;

  // Lets everything run until it rests and the moment has come, or until it rests and the condition holds.
  void run(Moment until, const Condition& condition = {});
  bool runInRealTime(const Condition& condition, int deadlineMs);

  // --- What is wrong.
  void complain(const std::string& what);
  void keepException() { exception_ = std::current_exception(); }
  void raise();
  void disturb(unsigned int mostTicks);
  unsigned int seed() const { return seed_; }

 private:
  static constexpr unsigned int kFirstTick = 100000;

  enum class Asked { kNot, kAsked, kRefused };

  struct Letter {
    unsigned int member;
    message m;
  };

  void pump();
  bool readService();
  void onFrame(std::span<const unsigned char> body);
  void registerService(std::span<const unsigned char> body);
  void greet();
  void tellWhatWasMissed();
  void onControl(const loader::Service& sender, const loader::Envelope& e);
  void onLoaderRequest(loader::Service& caller, const message& request);
  void onServiceEnd();
  void onServiceLeft();
  bool sendDue();
  bool distribute();
  bool handleMail();
  loader::Service& addRow(unsigned int id, const std::string& name);
  unsigned int pickId();

  bool isServiceRunning() const;
  void runService();
  void runAlone();
  bool isAtRest(Moment& step);
  std::optional<Moment> nextDelivery() const;
  void countPass();

  loader::ServiceTable table_;
  loader::OpenRequests requests_;
  loader::Subscriptions subscriptions_;
  loader::Outbox outbox_;
  loader::Router router_;
  loader::Service* service_ = nullptr;  // null until it has registered
  std::map<unsigned int, Member*> members_;
  std::multimap<Moment, Letter> later_;
  unsigned int nextId_ = 0x10000;
  unsigned long long births_ = 0;

  std::unique_ptr<Looper> ownLooper_;
  unsigned int ownNumber_ = 0;
  int marker_ =
      -1;  // a descriptor that is never ready, by which the poll of the loop is told from that of an exchange
  bool hasBegun_ = false;  // run() of the Looper was called
  bool hasEnded_ = false;  // and came back by itself
  Asked asked_ = Asked::kNot;
  unsigned long long askedAt_ = 0;
  std::set<unsigned int> known_;  // who was there when the service was asked to leave

  Moment elapsed_ = 0;
  std::time_t wallClock_;  // at the beginning of time
  bool isRunning_ = false;
  bool isPumping_ = false;
  bool isStepping_ = false;  // the loop runs for a call of the test
  bool isStopped_ = false;   // by the bus
  Moment deadline_ = 0;
  const Condition* condition_ = nullptr;
  int realWaitMs_ = 0;       // how long a loop that rests waits for the world outside
  unsigned int passes_ = 0;  // since time passed last

  std::string failure_;
  std::exception_ptr exception_;
  unsigned int seed_ = 0;
  bool isDisturbed_ = false;
};

}  // namespace kl::test
