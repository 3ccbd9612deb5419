// The names of the services by number, as the list given at build time has them.

#include <algorithm>
#include <iterator>
#include <string>

#include "kl/conventions.h"

namespace kl {
namespace {

constexpr const char* kNames[] = {
#include "service_names.inc"
};
static_assert(std::size(kNames) == kServiceNames, "one name for each number");

}  // namespace

// Async-signal-safe: reads a constant table.
const char* findServiceName(unsigned int id) { return id < kServiceNames ? kNames[id] : nullptr; }

unsigned int findServiceID(const std::string& name) {
  const auto found = std::find(std::begin(kNames), std::end(kNames), name);
  return found == std::end(kNames) ? BADID : static_cast<unsigned int>(found - std::begin(kNames));
}

}  // namespace kl
