// Signals of the Runner: they arrive through a pipe and become calls on the loop's thread.
//
//     kernel --handleSignal--> pipe, 4 bytes each --onSignal--> handler(data, sig)
//
// G1  the pipe exists exactly while at least one signal has SIGACTION_HANDLE (or a change to it was refused)
// G2  an entry's initial action is saved once, when the signal first changes away from SIGACTION_INITIAL
// G3  the kernel's handler touches nothing but the write end of the pipe

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>

#include "kl/runner.h"
#include "loop/signal_table.h"

namespace kl {
namespace {

constexpr int kSignals = 64;

struct SignalEntry {
  RunnerSigaction action = SIGACTION_INITIAL;
  void* data = nullptr;
  void (*handler)(void* data, int sig) = nullptr;
  struct sigaction initial = {};
};

std::array<SignalEntry, kSignals> table;
unsigned int pipeUsers = 0;
int pipeReadEnd = -1;
std::atomic<int> pipeWriteEnd{-1};  // the only thing that signal context shares with the loop
static_assert(std::atomic<int>::is_always_lock_free);

SignalEntry* findEntry(int sig) {
  return sig >= 0 && sig < kSignals ? &table[static_cast<std::size_t>(sig)] : nullptr;
}

struct sigaction kernelActionFor(RunnerSigaction action, const SignalEntry& entry) {
  struct sigaction result = {};
  result.sa_flags = SA_RESTART | SA_NOCLDSTOP;
  switch (action) {
    case SIGACTION_IGNORE: result.sa_handler = SIG_IGN; break;
    // Kept on purpose: only the function comes back, neither its mask nor its flags.
    // Held by Signals.TheInitialActionComesBackWithoutItsFlags.
    case SIGACTION_INITIAL: result.sa_handler = entry.initial.sa_handler; break;
    case SIGACTION_HANDLE: result.sa_handler = handleSignal; break;
    case SIGACTION_DEFAULT:
    default: result.sa_handler = SIG_DFL; break;
  }
  return result;
}

}  // namespace

void resetSignalTable() {
  pipeReadEnd = -1;
  pipeWriteEnd = -1;
  pipeUsers = 0;
  table.fill(SignalEntry{});
}

void Runner::shutdown() {
  for (int sig = 0; sig < kSignals; ++sig)
    if (findEntry(sig)->handler != nullptr) removeSighandler(sig, true);
  ThinRunner::shutdown();
}

bool Runner::setSigaction(int sig, RunnerSigaction action) {
  SignalEntry* entry = findEntry(sig);
  if (entry == nullptr) return false;
  if (entry->action == action) return true;
  if (entry->action == SIGACTION_HANDLE && --pipeUsers == 0) destroyPipe();
  if (action == SIGACTION_HANDLE && ++pipeUsers == 1) createPipe();
  const struct sigaction wanted = kernelActionFor(action, *entry);
  struct sigaction* const saved = entry->action == SIGACTION_INITIAL ? &entry->initial : nullptr;  // G2
  // Kept on purpose: when the kernel refuses, the pipe keeps the user that was counted for it.
  // Held by Signals.ARefusedChangeKeepsThePipe.
  if (::sigaction(sig, &wanted, saved) == -1) return false;
  entry->action = action;
  return true;
}

bool Runner::addSighandler(int sig, void* data, void (*handler)(void*, int), bool setAction) {
  SignalEntry* entry = findEntry(sig);
  if (entry == nullptr) return false;
  entry->data = data;
  entry->handler = handler;
  if (setAction) (void)setSigaction(sig, SIGACTION_HANDLE);
  return true;
}

bool Runner::removeSighandler(int sig, bool restore) {
  SignalEntry* entry = findEntry(sig);
  if (entry == nullptr) return false;
  if (restore) (void)setSigaction(sig, SIGACTION_INITIAL);
  entry->handler = nullptr;
  entry->data = nullptr;
  return true;
}

// A record is below PIPE_BUF and therefore read whole or not at all.
void Runner::onSignal(int fd, unsigned int events) {
  if ((events & POLLIN) == 0) return;
  const int pipeAtStart = pipeReadEnd;
  int sig = 0;
  // A handler may close the pipe, and its number may belong to another file by then.
  while (pipeReadEnd == pipeAtStart && ::read(fd, &sig, sizeof sig) == sizeof sig) {
    const SignalEntry* entry = findEntry(sig);
    if (entry == nullptr || entry->action != SIGACTION_HANDLE || entry->handler == nullptr) continue;
    entry->handler(entry->data, sig);
  }
}

// Without a pipe signals are dropped.
void Runner::createPipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_NONBLOCK | O_CLOEXEC) != 0) return;
  pipeReadEnd = ends[0];
  pipeWriteEnd = ends[1];
  addSocket(pipeReadEnd, this, bind<Runner, &Runner::onSignal>(), POLLIN);
}

// The write end is forgotten before it is closed: a signal that comes in between must not write to
// whatever gets its number next.
void Runner::destroyPipe() {
  const int readEnd = pipeReadEnd;
  const int writeEnd = pipeWriteEnd;
  pipeReadEnd = -1;
  pipeWriteEnd = -1;
  if (readEnd == -1) return;
  (void)removeSocket(readEnd);
  ::close(readEnd);
  ::close(writeEnd);
}

// Async-signal-safe: one write(2) to the pipe; errno is restored.
void handleSignal(int sig) {
  const int writeEnd = pipeWriteEnd;
  if (writeEnd < 0) return;
  const int savedErrno = errno;
  (void)!::write(writeEnd, &sig, sizeof sig);
  errno = savedErrno;
}

}  // namespace kl
