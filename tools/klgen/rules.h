#pragma once
// rules.h: what a description says of its objects, for kl::Table and kl::Client.

#include <string>

#include "services/describe/description.h"

namespace klgen {

// The members of an object's structure that kl/described.h is about: kRules, and the constants that it is made of.
std::string rulesOf(const describe::Description& description, const describe::Object& object);

}  // namespace klgen
