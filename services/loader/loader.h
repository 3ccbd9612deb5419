#pragma once
// loader.h: everything together.

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "admission/denials.h"
#include "config/difference.h"
#include "crashes/crashes.h"
#include "crashes/frame_ring.h"
#include "life/lifecycle.h"
#include "life/supervisor.h"
#include "logging/log_sender.h"
#include "own/own_service.h"
#include "transport/connection.h"
#include "transport/listener.h"
#include "transport/pending_connections.h"
#include "transport/text_socket.h"
#include "transport/turns.h"
#include "watch/deadlocks.h"
#include "watch/request_table.h"
#include "watch/taps.h"
#include "watch/watchdog.h"

namespace loader {

// The loader: one process, one thread, one event loop.
//
//     Listener, Lifecycle --make--> Client --frames--> Router --puts into queues--> Outbox
//                                     ^                  |                            |
//                                     |          OwnService, Lifecycle                |
//                                     '--------- writeQueues(): one write each ---------'
//
// Errors:    start() says why the loader cannot run.  Afterwards everything is one line on the log.
// Ownership: owns all of it.
// Threads:   belongs to one thread.
class Loader final : private LifecycleHost {
 public:
  // Reads the configuration anew; what is wrong with it is added to `mistakes`.
  using Source = std::function<Configuration(common::Mistakes& mistakes)>;

  Loader(Configuration configuration, Log& log);
  Loader(const Loader&) = delete;
  Loader& operator=(const Loader&) = delete;
  ~Loader();

  // SIGHUP and CMD_RELOAD read the configuration from there; without one they change nothing.
  void setSource(Source source) { source_ = std::move(source); }

  // Opens the socket and starts the services; an empty text, or what went wrong.
  std::string start();

  // Routes until SIGTERM or SIGINT has come and every service has ended.
  void run();

 private:
  class Client;
  class Loop : public kl::Runner {
   public:
    void stop() { stop_ = true; }
  };

  void adopt(Service& service, Descriptor connection) override;
  void drainConnectionsOf(Service& service) override;
  void disconnect(Service& service) override;
  void onServiceGone(Service& service) override { forgetAwayOne(service); }
  void onServiceLeft(Service& service) override { forgetAwayOne(service); }
  void onAllEnded() override;
  void writeQueues() override;

  Service& addOwnRow();
  void onProbeAnswer(Service& service, unsigned int requestId);
  void forgetAwayOne(const Service& service);
  void onSubscriptionRefused(const Service& subscriber, const Service& provider);
  void addConfigured(const ServiceConfiguration& configured);
  void onConnection(Descriptor socket, common::Peer peer);
  void turnAway(common::Peer peer, Account& account);
  void makeRoomFor(uid_t user);
  void addClient(Descriptor socket, const Applicant& who, Account& account);
  const char* registerClient(Client& client, std::span<const unsigned char> body);
  void onConnectionClosed(Client& client, const std::string& reason);
  void countFailure(const Client& client, Account& account);
  void onPassOver();
  void removeClosed();
  void onIdle(Service& service);
  std::set<std::string> secretNamesOf(unsigned int service) const;
  void onCrashNamed(const Crashed& crashed, const std::string& end);
  void openMetrics();
  void onChildSignal(int sig);
  void onEndSignal(int sig);

  // reloading.cpp
  void onReloadSignal(int sig);
  kl::message onReloadOrder(const kl::message& request);
  kl::message compare(const std::string& candidate) const;
  std::optional<Difference> readAnew(common::Mistakes& mistakes);
  void applyNext();
  void measureAnew();
  void reconfigure(const ServiceConfiguration& former);
  void addAwaited();

  Configuration configuration_;
  Log& log_;
  Loop loop_;
  Supervisor supervisor_{loop_};
  LogSender logSender_;
  Sockets sockets_{loop_};
  ReadArea area_;
  Accounts accounts_;
  IdCounter ids_;
  ServiceTable table_;
  OpenRequests requests_;
  Subscriptions subscriptions_;
  FrameRing ring_;
  Outbox outbox_;
  Turns turns_{outbox_.work()};
  KeptData kept_;
  RightsExplainer explainer_;
  RequestTable openTable_;
  TrafficTable trafficTable_{table_};
  OwnService own_;
  Taps taps_;
  Denials denials_;
  Probes probes_;
  Deadlocks deadlocks_;
  Watchdog watchdog_;
  Router router_;
  Registration registration_;
  Leaving leaving_;
  Idleness idleness_;
  Lifecycle lifecycle_;
  Crashes crashes_;
  CrashTable crashTable_{crashes_.store()};
  Listener listener_;
  PendingConnections pending_;
  TextSocket metrics_;
  std::map<uid_t, std::list<Client*>> pendingByUser_;  // to register, the oldest first
  std::string refusal_;                                // text behind registerClient()'s result
  std::vector<std::unique_ptr<Client>> clients_;       // closed ones are removed when a pass is over
  unsigned long long connections_ = 0;                 // that were taken, since it began
  bool someoneClosed_ = false;
  std::optional<unsigned int> refusalReportedAt_;  // seconds
  Source source_;
  std::optional<Configuration> next_;  // takes the place of the other one when the pass is over
  std::list<Configuration> former_;    // those by which services were started that are about to end
  std::set<unsigned int> awaited_;     // configured ids that are not in the table yet: somebody else is there
  bool isEnding_ = false;
};

}  // namespace loader
