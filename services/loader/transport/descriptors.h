#pragma once
// descriptors.h: the owner of a descriptor, and how many there may be.

#include "services/common/descriptor.h"

namespace loader {

using common::Descriptor;

// Lets this process open as many descriptors as it may; the processes that it starts get the limit of before.
void raiseDescriptorLimit();
void restoreDescriptorLimit();

}  // namespace loader
