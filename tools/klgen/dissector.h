#pragma once
// dissector.h: messages between services in Wireshark and tshark.

#include <string>
#include <vector>

#include "services/describe/description.h"

namespace klgen {

// A script in Lua that shows messages by the names of these descriptions.
std::string dissectorOf(const std::vector<describe::Description>& descriptions);

}  // namespace klgen
