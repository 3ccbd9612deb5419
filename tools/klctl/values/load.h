#pragma once
// load.h: what the services have done between two looks at them.

#include <sys/types.h>

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "values/process_usage.h"

namespace klctl {

using Count = unsigned long long;

// One service at one moment: what it has done since the loader began.
struct ServiceState {
  unsigned int id = 0;
  std::string name;
  std::string state;
  pid_t pid = 0;
  Count messagesIn = 0;
  Count messagesOut = 0;
  Count drops = 0;
  Count queue = 0;                // bytes
  std::optional<Count> oldestMs;  // the age of the oldest request that it has not answered
  std::string oldest;             // what that asks for, and who: "CMD_GETALL of web"
  std::optional<ProcessUsage> process;
};

// All of them, and the sums over them and over those that have gone.
struct SystemState {
  Count timeMs = 0;  // from any beginning
  std::vector<ServiceState> services;
  Count messages = 0;
  Count drops = 0;
  Count denials = 0;
};

// A service, and what it does at present.  A figure that takes two looks is absent after the first one, and after a
// process took the place of another.
struct ServiceLoad {
  ServiceState now;
  std::optional<Count> cpuPermille;  // of one processor
  std::optional<Count> inPerSecond;
  std::optional<Count> outPerSecond;
  std::vector<Count> history;  // messages per second in both directions, the latest last
};

struct SystemLoad {
  std::vector<ServiceLoad> services;
  std::optional<Count> messagesPerSecond;
  Count drops = 0;
  Count denials = 0;
};

// Compares each state with the one before.
//
// Errors:    none: counters that became less begin anew.
// Ownership: a value.
// Threads:   belongs to one thread.
// Cost:      keeps the last state and kHistory numbers for each service in it.
class LoadMeter {
 public:
  static constexpr std::size_t kHistory = 8;

  SystemLoad take(const SystemState& state);

 private:
  ServiceLoad loadOf(const ServiceState& now, Count passedMs);
  void forgetAbsent(const SystemState& state);

  struct Known {
    ServiceState last;
    std::deque<Count> history;
  };
  std::map<unsigned int, Known> known_;
  std::optional<Count> lastMs_;
  Count lastMessages_ = 0;
};

}  // namespace klctl
