#pragma once
// capabilities.h: which of root's rights the process of a service has.

#include <cstdint>
#include <optional>

#include "services/common/section.h"

namespace loader {

using Capabilities = std::uint64_t;  // a bit for each, by its number

// Reads `capabilities`, a list of names ("CAP_NET_ADMIN"); none when the key is missing.  Those that this process could
// not give to another one are added to `warnings`: the loader may run with other rights.
std::optional<Capabilities> readCapabilities(common::Section& section, common::Mistakes& warnings);

}  // namespace loader
