#pragma once
// descriptors.h: the owner of a descriptor, and how many there may be.

#include <cstddef>

#include "services/common/descriptor.h"

namespace loader {

using common::Descriptor;

// How many descriptors this process may have open.
std::size_t descriptorLimit();

// Lets this process open as many descriptors as it may; the processes that it starts get the limit of before.
void raiseDescriptorLimit();
void restoreDescriptorLimit();

}  // namespace loader
