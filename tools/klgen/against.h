#pragma once
// against.h: what a new description would break of an older one.

#include <string>
#include <vector>

#include "services/describe/description.h"

namespace klgen {

// The things that a difference breaks.
enum class Level {
  kWire,    // a program made of one description, and a program made of the other, misunderstand each other
  kSource,  // a program does not compile any more, or somebody's names stand for nothing
};

struct Break {
  Level level = Level::kWire;
  unsigned int line = 0;  // in the new file; 1 for what is gone
  std::string text;
};

// The breaks of `newer` against `older`, in the order of the older one.
std::vector<Break> breaksOf(const describe::Description& older, const describe::Description& newer);

}  // namespace klgen
