#pragma once
// pages.h: a description for people.

#include <string>
#include <vector>

#include "services/describe/description.h"

namespace klgen {

std::string markdownOf(const describe::Description& description);

// A page of section 5 of the manual.
std::string manPageOf(const describe::Description& description);

// Something of a description under the name that a page has for it; empty: under its own.
template <class Thing>
struct Labelled {
  std::string label;
  const Thing* thing;  // borrowed
};
template <class Thing>
using Rows = std::vector<Labelled<Thing>>;

// Parts of such pages, for pages that are written by hand.  Labels are names in C++ (kl::UNDO_TIME), and with one the
// table shows whole ids.
std::string markdownFields(const Rows<describe::Field>& fields);
std::string markdownValues(const Rows<describe::Field>& fields);
std::string markdownCommands(const Rows<describe::Object>& objects);
std::string markdownTopics(const Rows<describe::Topic>& topics);
std::string manFields(const Rows<describe::Field>& fields);
std::string manSettings(const Rows<describe::Field>& settings);
std::string manCommands(const Rows<describe::Object>& objects);
std::string manTopics(const Rows<describe::Topic>& topics);

}  // namespace klgen
