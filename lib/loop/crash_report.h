#pragma once
// lib/loop/crash_report.h: what the Runner sets up so that a crash leaves a report behind.

#include <csignal>

namespace kl {

// The address that the walk along the frames does not reach or pass; null until a Runner was made.
extern const char* stackTop;

// Makes onFatalSignal the kernel's handler of SIGSEGV, SIGILL, SIGABRT, SIGBUS, SIGFPE and SIGUSR2.
void installCrashReporter();

// Writes the report and, unless the signal is SIGUSR2, ends the process with status 1.
// Async-signal-safe, apart from the exit(3) at the end, which an alarm guards.
void onFatalSignal(int sig, siginfo_t* info, void* context);

}  // namespace kl
