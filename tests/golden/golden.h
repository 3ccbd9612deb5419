#pragma once
// golden.h: the golden files as bytes.

#include <string>
#include <vector>

#include "kl/message.h"

namespace golden {

using Bytes = std::vector<unsigned char>;
using Flat = kl::message::flat_message;

// A file of tests/golden; a failed test if there is none.
Bytes file(const std::string& name);
// Any file; empty if there is none.
Bytes contents(const std::string& path);

inline Bytes flat(const kl::message& m) { return m.flattened(); }

}  // namespace golden
