#pragma once
// loop/crash_report.h: what the Runner sets up so that a crash leaves a report behind.

namespace kl {

// The address that the walk along the frames does not reach or pass; null until a Runner was made.
extern const char* stackTop;

// Makes the crash reporter the kernel's handler of SIGSEGV, SIGILL, SIGABRT, SIGBUS, SIGFPE and SIGUSR2.
void installCrashReporter();

}  // namespace kl
