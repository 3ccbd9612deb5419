#pragma once
// loader.h: everything together.

#include <memory>
#include <vector>

#include "life/idleness.h"
#include "life/leaving.h"
#include "life/lifecycle.h"
#include "logging/log_sender.h"
#include "own/own_service.h"
#include "routing/router.h"
#include "transport/listener.h"
#include "transport/pending_connections.h"

namespace loader {

// The loader: one process, one thread, one event loop.
//
//     Listener, Supervisor --make--> Connection --frames--> Router --puts into queues--> Outbox
//                                        ^                    |                            |
//                                        |                OwnService                       |
//                                        '------------- settle(): one write each ----------'
//
// Errors:    start() says why the loader cannot run.  Afterwards everything is one line on the log.
// Ownership: owns all of it.
// Threads:   belongs to one thread.
class Loader final : private ConnectionHost,
                     private ListenerHost,
                     private SupervisorHost,
                     private OwnServiceHost,
                     private LeavingHost,
                     private IdlenessHost {
 public:
  Loader(const Configuration& configuration, Log& log);
  Loader(const Loader&) = delete;
  Loader& operator=(const Loader&) = delete;

  // Opens the socket and starts the services; an empty text, or what went wrong.
  std::string start();

  // Routes until SIGTERM or SIGINT has come and every service has ended.
  void run();

 private:
  class Loop : public kl::Runner {
   public:
    void stop() { stop_ = true; }
  };

  void onBatch() override;
  const char* onFrame(Connection& connection, std::span<const unsigned char> body) override;
  void onStranger(Connection& connection) override { strangers_.add(connection); }
  void onEnd(Connection& connection, const std::string& reason) override;
  void settle() override;
  void onConnection(Descriptor socket, Applicant who) override;
  void cannotAccept(int errorNumber) override;
  void tooManyFail() override;
  void adopt(Service& service, Descriptor connection) override;
  void processEnded(Service& service) override;
  const char* askToLeave(Service& service) override { return leaving_.ask(service); }
  bool hasLeft(Service& service, bool crashed) override;
  void disconnect(Service& service) override;
  void staysAway(Service& service) override;
  void allEnded() override;
  void wishesToLeave(Service& service) override;
  void readinessChanged(Service& service) override { idleness_.readinessChanged(service); }
  void refusedToLeave(Service& service) override { supervisor_.refusedToLeave(service); }
  void saidThatItLeaves(Service& service) override { supervisor_.expectEnd(service); }
  void isNeeded(Service& left) override { supervisor_.startAsNeeded(left); }
  void isIdle(Service& service) override;
  unsigned int seconds() const override;

  void addConfigured(const ServiceConfiguration& service);
  void addOwnRow();
  void addConnection(Descriptor socket, Applicant who);
  void makeRoomFor(uid_t user);
  const char* enroll(Connection& connection, std::span<const unsigned char> body);
  void confirm(Connection& connection, Service& service);
  void endService(Service& service);
  void forgetService(Service& service);
  void onChildSignal(int sig);
  void onEndSignal(int sig);

  const Configuration& configuration_;
  Log& log_;
  Loop loop_;
  LogSender logSender_;
  ReadArea area_;
  Users users_;
  IdCounter ids_;
  ServiceTable table_;
  OpenRequests requests_;
  Outbox outbox_;
  KeptData kept_;
  Supervisor supervisor_;
  OwnService own_;
  Leaving leaving_;
  Idleness idleness_;
  Router router_;
  Registration registration_;
  Listener listener_;
  Strangers strangers_;
  std::string refusal_;                                   // text behind enroll()'s result
  std::vector<std::unique_ptr<Connection>> connections_;  // ended ones are removed by settle()
  bool someoneEnded_ = false;
};

}  // namespace loader
