#pragma once
// rights.h: rights as the configuration writes them.

#include <string>

#include "kl/conventions.h"

namespace loader {

// The rights of a sender's requests.
struct Rights {
  bool all = false;
  bool none = false;                   // its requests are not even delivered
  unsigned int bits = kl::RIGHT_READ;  // else every request carries these

  static Rights everything() { return {true, false, kl::RIGHTS_ALL}; }
  static Rights nothing() { return {false, true, 0}; }
  static Rights of(unsigned int bits) { return {false, false, bits}; }

  friend bool operator==(const Rights&, const Rights&) = default;
};

// The rights as the configuration would have them: "none", "all", "read and change", "0x40000 and read".
std::string wordsOf(const Rights& rights);
std::string wordsOf(unsigned int bits);

}  // namespace loader
