#pragma once
// loader.h: everything together.

#include <memory>
#include <vector>

#include "listener.h"
#include "log_sender.h"
#include "own_service.h"
#include "router.h"
#include "supervisor.h"

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
                     private OwnServiceHost {
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
  void onEnd(Connection& connection, const std::string& reason) override;
  void settle() override;
  void onConnection(Descriptor socket, Applicant who) override;
  void adopt(Service& service, Descriptor connection) override;
  void processEnded(Service& service) override;
  void allEnded() override;

  void addConfigured(const ServiceConfiguration& service);
  void addOwnRow();
  void addConnection(Descriptor socket, Applicant who);
  const char* enroll(Connection& connection, std::span<const unsigned char> body);
  void endService(Service& service);
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
  Supervisor supervisor_;
  OwnService own_;
  Router router_;
  Registration registration_;
  Listener listener_;
  std::string refusal_;                                   // text behind enroll()'s result
  std::vector<std::unique_ptr<Connection>> connections_;  // ended ones are removed by settle()
  bool someoneEnded_ = false;
};

}  // namespace loader
