#pragma once
// judge.h: what programs of two versions of a description make of each other's messages.

#include <string>
#include <vector>

#include "services/describe/description.h"

namespace edits {

// Lets a program of each version, as its header has it made, send messages that the other one reads, and gives the first
// misunderstanding; empty when there is none.  Beside the two versions themselves there speak
//
//     an ancestor    the older version with everything that it reserves, as it was before that was gone
//     a successor    the newer version with something new at each number that these used and that it leaves free
//
// The same thing has the same name in both versions, or the same number where the older name is gone.
std::string misunderstanding(const describe::Description& older, const describe::Description& newer);

// Two structures of the headers that are made of the same list: of an object, or of what a command takes or gives.
struct Structures {
  std::string older;  // their names in C++
  std::string newer;
  std::vector<std::string> oldFields;
  std::vector<std::string> newFields;
};
std::vector<Structures> commonStructures(const describe::Description& older,
                                         const describe::Description& newer);

// The name in the older version of what the newer one calls so; a name of its own where that has no such field.
std::string meaningOfField(const std::string& name, const describe::Description& older,
                           const describe::Description& newer);

// The same as misunderstanding(), as far as these structures alone are concerned.
std::string misunderstandingOfStructures(const describe::Description& older,
                                         const describe::Description& newer);

// A name of the older version that means nothing in the newer one, for programs that go by names; empty when there is
// none.
std::string lostName(const describe::Description& older, const describe::Description& newer);

}  // namespace edits
