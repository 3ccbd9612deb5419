#pragma once
// tests/support/process/descriptors.h: what a process has open.

#include <vector>

namespace kl::test {

// The open descriptors of this process, in ascending order.
std::vector<int> openDescriptors();

}  // namespace kl::test
