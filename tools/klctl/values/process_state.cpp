// The name of the program stands in parentheses in front of the state and may have any characters in it, parentheses
// included: the state is behind the last one.

#include "values/process_state.h"

#include <fstream>
#include <iterator>

namespace klctl {
namespace {

std::string kernelText(pid_t pid, const char* name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/" + name);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A user who may not know where a process sleeps reads "0".
std::string sleepingPlace(const std::string& wchan) {
  return wchan.empty() || wchan == "0" ? "" : " in " + wchan;
}

}  // namespace

std::string whatItDoes(const std::string& stat, const std::string& wchan) {
  const std::size_t name = stat.rfind(") ");
  if (name == std::string::npos || name + 2 >= stat.size()) return {};
  switch (stat[name + 2]) {
    case 'R': return "runs";
    case 'S': return "is asleep" + sleepingPlace(wchan);
    case 'D': return "waits for a device" + sleepingPlace(wchan);
    case 'T': return "is stopped";
    case 't': return "is stopped by a debugger";
    case 'Z':
    case 'X': return "has ended";
    default: return {};
  }
}

std::string whatItDoes(pid_t pid) { return whatItDoes(kernelText(pid, "stat"), kernelText(pid, "wchan")); }

}  // namespace klctl
