#pragma once
// kl/runner.h: the event loop of a process: timers, sockets, hooks before sleeping, and signals.

#include <poll.h>

#include <cstddef>
#include <forward_list>
#include <map>
#include <memory>
#include <vector>

#include "kl/bind.h"
#include "kl/export.h"

namespace kl {

// The time base of the loop: ticks of 10 ms since boot, wrapping around after 2^32.  One system call.
KL_API unsigned int getJiffies();

// A single-threaded event loop over poll(2).  Callbacks are plain functions with a context word in front; a
// member function becomes one with kl::bind:
//
//     kl::Runner loop;
//     loop.addTimer(&state, onTimeout, 300);                                            // once, in 3 seconds
//     loop.addSocket(fd, this, kl::bind<Netif, &Netif::onReadable>(), POLLIN);
//     loop.run();
//
// One pass of run(): the hooks; one poll; the timers that are due; the callbacks of the sockets that are
// ready; then the delays of addDelayedTimer start to count.  Every callback runs on the thread that called
// run() and may add and remove anything, itself included.
//
// Errors:    a request that cannot be met returns false, or is one line on standard output where its comment names
//            one.  An exception that leaves a callback ends the process as an uncaught one does, wherever run() was
//            called: no exception passes the library.
// Ownership: the loop owns its records of timers, sockets and hooks, and nothing that they point to: context
//            words are borrowed until the timer fired or the record was removed; descriptors are never closed.
//            A resource, so it is not copied.
// Threads:   belongs to the thread that calls run(); nothing here is async-signal-safe.
// Cost:      adding, cancelling and firing a timer is logarithmic in the number of timers; removing a socket
//            takes constant time; a pass costs the poll, and one reading of the clock on each side of it if a
//            timer waits.
class KL_API ThinRunner {
 public:
  using TimerCallback = void (*)(void* data);
  using SocketCallback = void (*)(void* data, int fd, unsigned int revents);
  using HookCallback = void (*)(void* data);

  // A timer's record.  Belongs to the loop; users hold a TimerPtr.
  struct TimerInfo {
    void* data;
    TimerCallback callback;   // null: cancelled, the record is freed when its list is drained
    unsigned int expiry;      // the tick at which it is due; its delay while it waits for the end of the pass
    unsigned int heapIndex;   // its position in the heap, or a value for another place
    unsigned int generation;  // how often the record was reused; a handle to an earlier use is stale
  };

  // A handle to one timer, or to none.  Copy it freely.  It is not cleared when the timer fires: cancelling
  // with a stale handle answers true and does nothing.  It dies with its loop.
  class TimerPtr {
   public:
    TimerPtr() = default;
    explicit TimerPtr(TimerInfo* info) : info_(info), generation_(info ? info->generation : 0) {}
    explicit operator bool() const { return info_ != nullptr; }
    friend bool operator==(const TimerPtr&, const TimerPtr&) = default;

   private:
    friend class ThinRunner;
    TimerInfo* info_ = nullptr;
    unsigned int generation_ = 0;
  };

  struct SockInfo {
    int fd;
    void* data;
    SocketCallback callback;
    unsigned int index;  // of its entry in the poll array
    bool holdsBytes;     // see setReadAhead
  };

  ThinRunner();
  ThinRunner(const ThinRunner&) = delete;
  ThinRunner& operator=(const ThinRunner&) = delete;
  virtual ~ThinRunner();

  // Drops every timer, socket and hook.  Closes no descriptor and does not end run().
  virtual void shutdown();

  // Runs passes until the stop flag is set.
  virtual void run();

  // How long the poll may wait, in milliseconds; -1 for no limit.  A derived loop may change it.
  // Waits for the first timer, but never longer than 10 s while there is one.
  virtual int sleepTime(unsigned int now);

  // Calls cb(data) once, `delay` ticks from now.  A timer that a timer's callback adds fires in a later pass,
  // even with delay 0.  A delay above 4294607296 becomes that, with a line on standard output: it is the
  // largest one that the wrapping comparison of ticks still orders.
  TimerPtr addTimer(void* data, TimerCallback cb, unsigned int delay);

  // The same, but the delay counts from the end of the current pass, so that the rest of its work takes nothing off
  // it.  Does not read the clock.
  TimerPtr addDelayedTimer(void* data, TimerCallback cb, unsigned int delay);

  // Lets the delays of addDelayedTimer start to count.  run() does so in each pass.
  void addDelayedTimers();

  // Cancels a timer.  False only for a handle to none; inside the timer's own callback it is true and does
  // nothing.
  bool removeTimer(TimerPtr timer);

  // Cancels the first timer made with exactly this pair; false if none waits.  Linear in the number of
  // timers.
  bool removeTimer(void* data, TimerCallback cb);

  // Fires what is due.  A timer overdue by more than 359999 ticks (an hour) counts as far in the future.
  void runTimers();

  // Calls cb(data, fd, revents) whenever one of `events` (POLLIN and so on), POLLERR or POLLHUP holds.
  // A descriptor that is watched already keeps its callback, with a line on standard output.
  void addSocket(int fd, void* data, SocketCallback cb, unsigned int events);

  // Replaces the requested events; false if fd is not watched.
  bool changeSocket(int fd, unsigned int events);

  // Stops watching; false if fd is not watched.
  bool removeSocket(int fd);

  // Declares that the reader of fd holds bytes that it has read ahead, or no longer does; false if fd is not
  // watched.  While it does and fd is watched for POLLIN, the poll does not wait and fd counts as readable in
  // its place among the others, so a reader may take many frames with one read(2) and still handle one in
  // each pass.
  bool setReadAhead(int fd, bool holdsBytes);

  // One poll, the timers, and the callbacks of the sockets that are ready.  sleepTime gets `now`.
  void runSocks(unsigned int now);

  // Calls fn(data) in each pass before the poll, the newest first; the order turns around with every pass.
  // A hook added by a hook is first called in the next pass.
  void addBeforeSleep(void* data, HookCallback fn);

  // Removes the hooks with this pair.  Where two lie next to each other only the first goes.
  void removeBeforeSleep(void* data, HookCallback fn);

 protected:
  // Set it to make run() return at the end of the pass.
  bool stop_ = false;

 private:
  friend class EmbeddedLoop;     // kl/embed.h: another loop in the place of run()
  friend class ThinRunnerProbe;  // the tests' view of the heap

  using SocketMap = std::map<int, SockInfo>;

  // A place in the heap.  The expiry stands beside the pointer so that comparing does not follow it.
  struct HeapEntry {
    TimerInfo* timer;
    unsigned int expiry;
  };

  struct Hook {
    void* data;
    HookCallback callback;
  };

  TimerInfo* newTimer(void* data, TimerCallback cb, unsigned int expiry);
  void addTimerBlock();
  void freeTimer(TimerInfo* timer);
  void pushTimer(TimerInfo* timer, unsigned int now);
  void placeTimerInHeap(TimerInfo* timer, unsigned int index, unsigned int now);
  void put(const HeapEntry& entry, std::size_t position);
  std::size_t siftUp(const HeapEntry& entry, std::size_t hole, unsigned int reference);
  std::size_t siftDown(const HeapEntry& entry, std::size_t hole, unsigned int reference);
  void removeTimer(TimerInfo* timer);
  void cancelTimer(TimerInfo* timer);
  TimerInfo* findTimer(void* data, TimerCallback cb) const;
  void fireDueTimers(unsigned int now);
  void adoptPendingTimers(unsigned int now);
  void adoptDelayedTimers(unsigned int now);
  void dropTimers();

  bool isReadAhead(std::size_t index) const;
  bool someoneReadsAhead() const;
  int mergeReadAhead(int ready);
  void dispatchSockets(int ready);
  void dropSockets();

  void runBeforeSleep();
  void dropHooks();

  bool sleepTimeNeedsClock() const;

  SocketMap sockets_;
  std::vector<pollfd> polls_;                     // one per watched socket
  std::vector<SocketMap::iterator> pollSockets_;  // beside polls_, in the same order
  bool inRunTimers_ = false;
  unsigned int heapTime_ = 0;  // the tick that the heap was last ordered by
  std::vector<HeapEntry> heap_;
  std::vector<TimerInfo*> pending_;  // made while timers fired
  std::vector<TimerInfo*> delayed_;  // made with addDelayedTimer
  std::forward_list<Hook> hooks_;
  std::forward_list<Hook> hooksToRun_;  // what is left of the list during a pass

  std::size_t readAheadCount_ = 0;
  TimerInfo* freeTimers_ = nullptr;  // linked by their data
  std::vector<std::unique_ptr<TimerInfo[]>> timerBlocks_;
  const void* ownSleepTime_;  // see sleepTimeNeedsClock
};

using TimerPtr = ThinRunner::TimerPtr;

// The effect of a signal on the process.  Any other value counts as SIGACTION_DEFAULT for the kernel.
enum RunnerSigaction : unsigned int {
  SIGACTION_IGNORE = 0,
  SIGACTION_DEFAULT = 1,
  SIGACTION_INITIAL = 2,  // what it did before the loop first changed it
  SIGACTION_HANDLE = 3,   // comes to the loop as a call of the handler given to addSighandler
};

// The event loop that a process makes: a ThinRunner that also turns signals into calls on the loop's thread,
// and that reports a crash of the process (SIGSEGV, SIGILL, SIGABRT, SIGBUS, SIGFPE) before it ends; SIGUSR2
// gives the same report on standard output and the process goes on.
//
//     kl::Runner loop;
//     loop.addSighandler(SIGHUP, this, kl::bind<Netif, &Netif::onHangup>(), true);
//
// A process that has a Looper (kl/looper.h) has its Runner in that.
//
// Errors:    there is at most one at a time: a second one ends the process with status 1 after a line on
//            standard output.
// Ownership: as ThinRunner.  The tables are process-wide: shutdown() gives signals with a handler back and
//            closes the pipe; the destructor does neither.
// Threads:   one loop, one thread.  Signals may arrive on any thread; their handlers run on the loop's thread
//            and may use everything.
// Cost:      a signal costs one write and one read of 4 bytes.  The pipe exists while a signal is handled.
//            When it is full (some 16,000 signals that wait), further signals are lost.
class KL_API Runner : public ThinRunner {
 public:
  Runner();
  ~Runner() override;

  // Returns every signal that has a handler to its initial action, then drops everything as ThinRunner does.
  void shutdown() override;

  // Changes what a signal does; false for a number outside 0..63 or when the kernel refuses.
  bool setSigaction(int sig, RunnerSigaction action);

  // Records handler(data, sig) for a signal and, with setAction, lets the signal come to the loop.  Without
  // it the handler waits until something sets SIGACTION_HANDLE.  False for a number outside 0..63.
  bool addSighandler(int sig, void* data, void (*handler)(void* data, int sig), bool setAction);

  // Forgets the handler and, with restore, returns the signal to its initial action: its function, not its
  // mask or flags.  False for a number outside 0..63.
  bool removeSighandler(int sig, bool restore);

  // The callback of the signal pipe: calls the handlers of the signals that arrived.
  void onSignal(int fd, unsigned int events);

 private:
  void createPipe();
  void destroyPipe();
};

// The Runner of this process, null when there is none.
KL_API Runner* getRunner();

// Which Runner that is: each one that the process makes has a number of its own, from 1 on.  0 when there is none.
// Tells whether a timer's Runner is still there, where its address may have gone to another one.
KL_API unsigned int getRunnerNumber();

// The function that the kernel calls for a signal with SIGACTION_HANDLE.
// Async-signal-safe: one write(2) to the pipe; errno is restored.
KL_API void handleSignal(int sig);

}  // namespace kl
