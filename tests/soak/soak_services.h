#pragma once
// soak_services.h: what the services of the soak say to each other and to whoever looks after them.
//
// kl-soak-keeper answers on the path [soak::kKeeper, soak::kTable] with a table in a store: CMD_SETOBJ takes STD_DESCR and
// can be undone, CMD_GETOBJ, CMD_REMOVEOBJ and CMD_GETALL as everywhere; CMD_GETCOUNT gives STD_GETALLNO and DIGEST.
// It may leave.
//
// kl-soak-chatter asks everybody for everything, all the time, on the path [soak::kChatter, soak::kTable]:
//
//     CMD_GETCOUNT   ASKED, ANSWERED (with whatever, errors too), TIMEOUTS, OPEN
//     CMD_START      logs STD_GETALLNO lines as fast as it can
//     CMD_CANCEL     asks nothing any more
//
// kl-soak-follower has a copy of the keeper's table, by kl::Watcher, on [soak::kFollower, soak::kTable]: CMD_GETCOUNT gives
// STD_GETALLNO and DIGEST of what it knows.

#include <map>
#include <string>

#include "kl/field.h"

namespace soak {

inline constexpr unsigned int kKeeper = 60;
inline constexpr unsigned int kChatter = 61;
inline constexpr unsigned int kFollower = 62;
inline constexpr unsigned int kTable = 3;  // the handler, in each of them

inline constexpr unsigned int kMostObjects = 500;  // their numbers: 1 to this

inline constexpr kl::field<unsigned long long> DIGEST{0x10000001};
inline constexpr kl::field<unsigned long long> ASKED{0x10000002};
inline constexpr kl::field<unsigned long long> ANSWERED{0x10000003};
inline constexpr kl::field<unsigned long long> TIMEOUTS{0x10000004};
inline constexpr kl::field<unsigned int> OPEN{0x08000005};

// One number for all numbers and texts of a table.
inline unsigned long long digestOf(const std::map<unsigned int, std::string>& texts) {
  unsigned long long digest = 0xcbf29ce484222325;
  const auto mix = [&digest](unsigned int word) { digest = (digest ^ word) * 0x100000001b3; };
  for (const auto& [id, text] : texts) {
    mix(id);
    for (const char c : text) mix(static_cast<unsigned char>(c));
  }
  return digest;
}

}  // namespace soak
