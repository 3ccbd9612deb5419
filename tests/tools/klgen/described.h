#pragma once
// described.h: descriptions for the tests of klgen.

#include "tests/services/describe/described.h"

namespace klgen {

using describe::described;
using describe::sample;

}  // namespace klgen
