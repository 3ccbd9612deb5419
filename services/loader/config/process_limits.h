#pragma once
// process_limits.h: what the process of a service may take of the machine.

#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "config/capabilities.h"
#include "config/profiles.h"
#include "services/common/section.h"

namespace loader {

// A limit that is not given is as the loader has it.
struct ProcessLimits {
  std::optional<std::uint64_t> memory;  // bytes that it can write and shares with nobody
  std::optional<unsigned int> files;    // descriptors
  std::optional<unsigned int> tasks;    // processes and threads of its user, wherever they come from
  std::optional<int> nice;
  std::optional<int> oomScore;
  std::optional<mode_t> umask;
  std::optional<Capabilities> capabilities;
  bool mayGainPrivileges = false;  // by a program with the set-user-ID bit, or with capabilities
  Profile profile = Profile::kNone;

  friend bool operator==(const ProcessLimits&, const ProcessLimits&) = default;
};

// Reads the keys of a service.  Limits that this process could not give to another one, or that would not bind it, are
// added to `warnings`: the loader may run with other rights.
ProcessLimits readProcessLimits(common::Section& section, bool isForRoot, common::Mistakes& warnings);

}  // namespace loader
