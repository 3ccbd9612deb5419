#pragma once
// supervisor.h: starts the configured services and keeps them running.

#include <map>
#include <memory>

#include "kl/runner.h"
#include "life/restart_delay.h"
#include "logging/log.h"
#include "own/own_service.h"
#include "transport/descriptors.h"

namespace loader {

// What the supervisor needs of the loader around it.
class SupervisorHost {
 public:
  // Takes the loader's end of the connection of a process that is being started.
  virtual void adopt(Service& service, Descriptor connection) = 0;
  // The process has ended: what it still said is to be read, and its connection to be ended.
  virtual void processEnded(Service& service) = 0;
  // Asks the process of a service to leave; null, or why it cannot be asked.
  virtual const char* askToLeave(Service& service) = 0;
  // Whether the process of a service that was asked, which has now ended, has left.
  virtual bool hasLeft(Service& service, bool crashed) = 0;
  // Ends the connection of somebody else's process that has the place of a service.
  virtual void disconnect(Service& service) = 0;
  // A service that had left does not come again.
  virtual void staysAway(Service& service) = 0;
  // After endAll(): no process is left.
  virtual void allEnded() = 0;
  // Sends what the supervisor's doing has put into queues.  Called at the end of each of its callbacks.
  virtual void settle() = 0;

 protected:
  ~SupervisorHost() = default;
};

// The life of the configured services:
//
//     STOPPED --start--> STARTING --registers--> REGISTERED --CTRL_RUNNING--> RUNNING
//        ^                  ^  '------------------- ends ----------------------'
//        |                  |                         v
//        |                  '--after a while------ DELAYED      (a crash; 0.1 s, doubling, up to 10 s)
//        '--- ends --- STOPPING <--stop, SIGTERM and after 2 s SIGKILL--
//
//     RUNNING --asked--> LEAVING --ends--> LEFT --a message for it--> STARTING
//        ^                  |
//        '--- refuses ------'
//
// Errors:    a process that cannot be started counts as one that crashed; each end is one line on the log.
// Ownership: owns the processes' records; borrows the services for good (configured ones stay in the table).
// Threads:   belongs to one thread.
// Cost:      nothing while nothing happens; timers run only for delays and for processes told to end.
class Supervisor final : public ServiceActions {
 public:
  static constexpr unsigned int kKillTicks = 200;
  static constexpr unsigned int kLeaveTicks = 200;  // at the orderly end: to answer and to be gone

  Supervisor(kl::ThinRunner& runner, ServiceTable& table, Log& log, SupervisorHost& host)
      : runner_(runner), table_(table), log_(log), host_(host) {}
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

  // Takes charge of a service with a command.  Starts nothing yet.
  void supervise(Service& service);
  void startAll();

  const char* start(Service& service) override;
  const char* stop(Service& service) override;
  const char* restart(Service& service) override;
  const char* leave(Service& service) override;

  // A message waits for a service that left.
  void startAsNeeded(Service& service);
  // A process that was asked to leave does not.
  void refusedToLeave(Service& service);
  // The process has to end now, within its time.
  void expectEnd(Service& service);

  // Somebody registered under the id of a service whose process is not running.
  void strangerCame(Service& service);
  // The connection of a configured service is gone, be it the process's or a stranger's.
  void connectionEnded(Service& service);

  // Collects the processes that have ended.
  void reap();

  // Asks those processes to leave that may, tells all others to end, and starts none any more.  A second call kills
  // them at once.
  void endAll();

 private:
  struct Process {
    Process(Supervisor& s, Service& v) : supervisor(s), service(v) {}
    void onDelayOver();
    void onKill();
    bool isAlive() const { return service.pid > 0 && isOwn; }

    Supervisor& supervisor;
    Service& service;
    bool isOwn = false;        // service.pid is a child of the loader
    bool isWanted = false;     // it is to run
    bool isTold = false;       // to end
    bool startsAgain = false;  // as soon as it has ended
    unsigned int startTick = 0;
    RestartDelay delay;
    kl::TimerPtr delayTimer;
    kl::TimerPtr killTimer;
  };

  Process* find(const Service& service);
  void launch(Process& p);
  bool isAskedAtEnd(Process& p);
  void left(Process& p, const std::string& how);
  void awaitDemand(Process& p);
  void rest(Process& p);
  void tellToEnd(Process& p);
  void kill(Process& p);
  void ended(Process& p, int status);
  void forgetProcess(Process& p);
  bool startsAfter(const Process& p, bool crashed) const;
  void settleDown(Process& p, const std::string& how);
  void startLater(Process& p, const std::string& how);
  void cancelDelay(Process& p);
  bool anyAlive() const;

  kl::ThinRunner& runner_;
  ServiceTable& table_;
  Log& log_;
  SupervisorHost& host_;
  std::map<unsigned int, std::unique_ptr<Process>> processes_;  // by service id
  bool isEnding_ = false;
};

}  // namespace loader
