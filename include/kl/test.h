#pragma once
// kl/test.h: tests of services at home: without root, without a loader and without waiting.
//
// A TestBus is the loader's side of the process that a test is, played in the test's own thread.  A Peer is another
// service at it, which asks, follows and answers as the test says:
//
//     TEST(Hello, SaysWhatItIsTold) {
//       kl::test::TestBus bus(34);                 // this process is service 34
//       Hello hello;
//       bus.add(0, hello);                         // its path is [34, 0]
//       kl::test::Peer client(bus);
//       EXPECT_EQ(client.ask({34, 0}, kl::CMD_GET).get(kl::STD_DESCR, ""), "hello");
//     }
//
// Everything here stands in an archive of its own, not in libkl.so: link the CMake target kl::test (-lkl-test -lkl) into
// the test program.  It works with any test framework, because it has no main() and needs none: what is wrong is an
// exception, or a call of the handler that setFailureHandler was given.
//
// The archive defines poll(), times(), time() and clock_gettime() for the whole program.  They do what the system does,
// but for the thread and the time of a TestBus.

#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kl/looper.h"
#include "kl/ticks.h"

namespace kl::test {

class Bus;
class Member;

// A fault that the kit itself found; its text is one line.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Called with each failure in place of a thrown Failure.  An empty handler throws again.
//
//     kl::test::setFailureHandler([](const std::string& what) { ADD_FAILURE() << what; });
//
// A failure that is met inside the service waits until the service comes back to the test; one that nobody can be told
// of any more, because a bus ends, is printed and ends the process.
void setFailureHandler(std::function<void(const std::string& what)> handler);

// The loader's side of one process.  Messages take the way through the sources of the loader itself, byte for byte:
// paths, users and rights, replies that nobody waits for, subscriptions, deaths, what is garbage.
//
// The service runs in the calls of the bus and of its peers, and in no other.  It rests when no byte is on the way and no
// timer is due.
//
// Time stands still but in advance(), in Peer::ask() until the reply is there, and where the service itself waits for a
// reply.  It then goes on from one timer to the next one, so that each fires at its tick, however long the span is.
//
// The folder of the fixed paths (kl::underRoot) is one of the test's own, empty when a bus is made: in /run for root, else
// in TMPDIR or /tmp, or in the one that KL_ROOT names.
//
// Errors:    Failure, or the failure handler: a frame that the loader would end the connection for, a registration under
//            an id that is taken, a service that does not come to rest.  One that waits without limit for what nobody
//            sends ends the process, with a line.
// Ownership: owns the Looper that it makes; borrows handlers.  Descriptor 3 is the service's connection while it lives.
// Threads:   one at a time in a process, and everything belongs to its thread.
// Cost:      some tenths of a millisecond for a bus; a message is a few system calls.
class TestBus {
 public:
  // The process is this service: makes its Looper, which handlers may then be added to.
  explicit TestBus(unsigned int service);
  // The test makes the Looper, or what is derived from it, as the service's main() does: after the bus.
  TestBus();
  TestBus(const TestBus&) = delete;
  TestBus& operator=(const TestBus&) = delete;
  ~TestBus();

  // Adds a handler to the Looper under this number.
  void add(unsigned int number, Handler& handler);
  // The number of the service; 0 before its registration.
  unsigned int service() const;
  // Sets what the loader's configuration says of the service, for registrations from now on.
  void setSettings(const message& settings);
  // Answers requests to the loader's own service, [1]; without a script they are ERROR_NOTIMP.
  void onLoader(unsigned int command, std::function<message(const message& request)> script);
  // The control codes that the service has sent since the last call, CTRL_HELLO first.
  std::vector<unsigned int> takeControls();

  // Lets the service run until it rests.  No time passes.
  void runUntilIdle();
  // The same for what comes from outside the bus, from another thread or the kernel: until the condition holds.  False
  // when it does not within so many milliseconds of the machine's own time.
  bool runUntil(const std::function<bool()>& condition, int deadlineMs = 5000);

  // The tick, as kl::getJiffies() gives it to the service.
  unsigned int now() const;
  // Lets so many ticks pass.
  void advance(unsigned int ticks);
  template <class Rep, class Period>
  void advance(std::chrono::duration<Rep, Period> span) {
    advance(static_cast<unsigned int>(inTicks(span)));
  }
  // The seconds since 1970, as std::time() gives them to the service: at first the beginning of 2026.  They go on with the
  // ticks; a clock that is set moves no tick.
  std::time_t wallClock() const;
  void setWallClock(std::time_t seconds);

  // --- Leaving and ends of the service.

  enum class Leave { kLeft, kRefused, kMayNot, kNoAnswer };
  // Asks it to leave, if it said that it may.  Messages for it wait from then on until it is there again.
  Leave askToLeave();
  // Said that it may leave (Looper::setupLeave); wishes to be asked (Looper::tellLeave).
  bool mayLeave() const;
  bool wantsToLeave() const;
  // The data that it saved when it last left, and those that it finds when it registers next.
  const message& leaveData() const;
  void setLeaveData(const message& data);
  // Makes way for the next process of the service, after a leave or an end.  The Looper of a bus that was made with a
  // number is ended and made anew, without handlers.  Needs: one that the test made is destroyed.
  void startAgain();

  // --- Faults.

  // Messages for the service arrive so many ticks later from now on, in its order.
  void delay(unsigned int ticks);
  // They arrive in pieces of so many bytes; 0: in one.
  void cut(unsigned int bytes);
  // The service's writes meet a full socket soon, and go out in pieces.
  void shrinkBuffers();
  // Delays of up to so many ticks, and pieces, by chance.  The seed is KL_TEST_SEED of the environment, or another one
  // each time; failures of the kit name it.
  void disturb(unsigned int mostTicks);
  unsigned int seed() const;
  // The connection is lost: a service ends then, with one line and status 1.
  void loseLoader();

 private:
  friend class Peer;
  std::unique_ptr<Bus> bus_;
};

// Another service at the bus, without a process.
//
//     kl::test::Peer clock(bus, 24);
//     clock.on(kl::CMD_GET, [](const kl::message&) { return answer; });     // answers the service
//     clock.subscribe({34, 0});                                             // follows it
//     bus.advance(200ms);
//     EXPECT_EQ(clock.takeNotified().size(), 1u);
//
// Errors:    as TestBus.
// Ownership: borrows the bus, which outlives it; its own end is that of its process.
// Threads:   as TestBus.  Scripts run while the service waits, so they may send, and may not wait: no ask, no advance.
class Peer {
 public:
  using Path = std::vector<unsigned int>;
  // Makes the body of a reply.
  using Script = std::function<message(const message& request)>;

  // Registers under this id; 0: under one from 0x10000 on, as a client does.  Those below count as configured: their end
  // is announced to everybody, that of others to who had to do with them.
  explicit Peer(TestBus& bus, unsigned int id = 0);
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer();

  unsigned int id() const;

  // Whose requests these are from now on, and with which rights (RIGHT_READ | ...); with none they are not delivered.  At
  // first they are root's, who has RIGHTS_ALL and whose requests pass with what they carry.
  void setUser(const std::string& user, unsigned int rights);

  // --- Asking.

  // Asks and waits for the reply; an ERROR_TIMEOUT error when none comes within so many ticks.
  message ask(const Path& to, unsigned int command, const message& body = {}, unsigned int timeout = 500);
  // Asks; the reply is there when the service has run.
  unsigned int post(const Path& to, unsigned int command, const message& body = {});
  std::optional<message> takeReply(unsigned int request);
  // Sends a message as it is.
  void send(const message& m);

  void subscribe(const Path& to, unsigned int command = CMD_NOTIFY, const message& filter = {});
  void unsubscribe(const Path& to, unsigned int command = CMD_NOTIFY, const message& filter = {});

  // Takes what has come since the last call, each in its order: notifications, other commands without a request number,
  // services that have ended, notices about paths that lead nowhere.
  std::vector<message> takeNotified();
  std::vector<unsigned int> takeDeaths();
  std::vector<message> takeNotices();

  // --- Answering.  A command without a script gets ERROR_NOTIMP, as from a handler, but CMD_NOOP.

  void on(unsigned int command, Script script);
  void on(unsigned int command, const message& reply);
  // Leaves it without an answer.
  void ignore(unsigned int command);
  // Answers so many ticks later from now on.
  void delay(unsigned int ticks);
  // The requests that have come since the last call, answered or not; answers one of them.
  std::vector<message> takeAsked();
  void reply(const message& request, const message& body);

  // The number of subscribers here; notifies all of them, under their commands.
  unsigned int subscribers() const;
  void notify(const message& body);

  // Checks what it answers and notifies, and what it is asked, against a description (docs/descriptions.md): a field that
  // the description does not know, or has with another type, is a failure.  Names of the conventions are always known.
  void describedBy(const std::string& text);
  void describedByFile(const std::string& file);

  // Its process ends, as a killed one does.
  void end();

 private:
  std::unique_ptr<Member> member_;
};

// The real loader, kl-loader, in the folder of the test's own.  The test is a client of it, with a Looper made by kConnect,
// and time is the machine's.
//
//     kl::test::RealBus bus("[[service]]\nname = \"hello\"\nid = 34\ncommand = [\"" HELLO "\"]\n");
//     kl::Looper client(kl::Looper::kConnect);
//
// The program is the one that KL_LOADER of the environment names, else kl-loader in PATH or in one of the folders for
// programs of the system.
//
// Errors:    as TestBus: no loader, one that cannot run, an end that is not orderly.
// Ownership: owns the process, which ends with it, and takes its services with it.
// Threads:   one at a time in a process, and no TestBus beside it.
// Cost:      the start of a process, a few milliseconds.
class RealBus {
 public:
  // Starts it with this configuration (kl-loader(8)) and waits until it takes connections.
  explicit RealBus(const std::string& configuration = "");
  RealBus(const RealBus&) = delete;
  RealBus& operator=(const RealBus&) = delete;
  ~RealBus();

  int pid() const;
  void signal(int number);
  // Waits for its end: its exit status, or 128 and the signal; -1 when it does not end in time.
  int waitForEnd(int deadlineMs = 10000);
  // The lines that it has logged so far; waits until they hold a text.
  std::string log() const;
  bool logs(const std::string& text, int deadlineMs = 5000) const;

 private:
  int pid_ = -1;
  std::string folder_;
};

}  // namespace kl::test
