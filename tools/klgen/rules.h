#pragma once
// rules.h: what a description says of its objects and of requests, for kl::Table, kl::Commands and kl::Client.

#include <string>

#include "services/describe/description.h"

namespace klgen {

// The members of an object's structure that kl/described.h is about: kRules, and the constants that it is made of.
std::string rulesOf(const describe::Description& description, const describe::Object& object);

// The same of what a command takes.
std::string rulesOf(const describe::Description& description, const describe::Command& command);

}  // namespace klgen
