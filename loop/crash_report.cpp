// The last words of a process: what a fatal signal leads to.

#include "loop/crash_report.h"

#include <csignal>
#include <initializer_list>

namespace kl {

const char* stackTop = nullptr;

namespace {

// Async-signal-safe: signal(2) only.  The instruction that faulted is run again and ends the process.
void onFatalSignal(int sig, siginfo_t*, void*) {
  if (sig != SIGUSR2) ::signal(sig, SIG_DFL);
}

}  // namespace

void installCrashReporter() {
  struct sigaction action {};
  action.sa_sigaction = onFatalSignal;
  action.sa_flags = SA_RESTART | SA_SIGINFO;
  for (const int sig : {SIGSEGV, SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGUSR2})
    ::sigaction(sig, &action, nullptr);
}

}  // namespace kl
