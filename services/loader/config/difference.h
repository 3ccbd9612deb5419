#pragma once
// difference.h: what becomes of the services when the configuration is read anew.

#include <string>
#include <vector>

#include "config/configuration.h"

namespace loader {

// Names are in the order of the file, those of services that are gone in the order of the former one.  A service whose
// command came or went is in both `ended` and `started`: somebody else starts it from now on, or did so until now.
struct Difference {
  std::vector<std::string> started;
  std::vector<std::string> ended;
  std::vector<std::string> restarted;  // their processes would not know of the change
  std::vector<std::string>
      adjusted;                    // the change concerns the loader alone; [rights] and [loader] are named so
  std::vector<std::string> later;  // keys that the loader reads when it starts
  unsigned int unchanged = 0;      // how many services

  // Of each in `restarted` and `adjusted`, the keys that changed: "command, memory"; empty for [rights] and [loader].
  std::vector<std::string> restartedKeys;
  std::vector<std::string> adjustedKeys;

  // "1 started, 2 ended, 7 unchanged".
  std::string describe() const;
};

// Whether it is the same service, whatever else has changed.
bool isSuccessor(const ServiceConfiguration& former, const ServiceConfiguration& now);
// Whether the process has to be another one.
bool needsRestart(const ServiceConfiguration& former, const ServiceConfiguration& now);

Difference differenceOf(const Configuration& former, const Configuration& now);

}  // namespace loader
