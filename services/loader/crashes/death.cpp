// The words for ends of processes.

#include "crashes/death.h"

#include <sys/wait.h>

#include <csignal>
#include <cstring>

namespace loader {

std::string signalName(unsigned int signal) {
  const char* const name = ::sigabbrev_np(static_cast<int>(signal));
  return name == nullptr ? "signal " + std::to_string(signal) : "SIG" + std::string(name);
}

std::string describeEnd(int status, const Caught& caught) {
  if (caught.signal != 0 && isCrash(status)) return "killed by " + signalName(caught.signal);
  if (!WIFSIGNALED(status)) return "ended with status " + std::to_string(WEXITSTATUS(status));
  const auto signal = static_cast<unsigned int>(WTERMSIG(status));
  const bool isOfMemory = signal == SIGSEGV || signal == SIGBUS;
  return "killed by " + signalName(signal) +
         (isOfMemory && caught.report.empty() ? " without a report, as after a stack overflow" : "");
}

bool isCrash(int status) { return !WIFEXITED(status) || WEXITSTATUS(status) != 0; }

}  // namespace loader
