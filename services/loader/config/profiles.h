#pragma once
// profiles.h: which calls of the system a service is refused, by the name of a profile.

#include <optional>
#include <span>
#include <string_view>

#include "services/common/section.h"

namespace loader {

enum class Profile : unsigned char {
  kNone,     // nothing is refused
  kPlain,    // what no service needs
  kQuiet,    // moreover, every socket but local ones, the clock and the machine
  kNetwork,  // the same with sockets of the network
};

// Calls that are refused for one reason.
struct CallGroup {
  std::string_view reason;
  Profile since;  // kPlain or kQuiet: refused by that one and by those behind it
  std::span<const std::string_view> calls;
};

std::span<const CallGroup> callGroups();
bool isRefused(std::string_view call, Profile profile);
// The families of sockets that the profile allows; none where it does not ask for the family.
std::span<const int> socketFamilies(Profile profile);

std::string_view nameOf(Profile profile);

// Reads `profile`.  One that this build cannot enforce is added to `warnings`.
Profile readProfile(common::Section& section, bool mayGainPrivileges, common::Mistakes& warnings);

}  // namespace loader
