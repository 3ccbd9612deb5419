#pragma once
// known_fields.h: whether messages keep to a description.

#include <map>
#include <string>

#include "kl/message.h"

namespace kl::test {

// The fields of one description.
//
// Errors:    a description that cannot be read is reported.
// Ownership: a value.
// Threads:   as any value.
// Cost:      a walk over the records of a message for each check.
class KnownFields {
 public:
  // `name` is what the text is called where it is wrong.
  KnownFields(const std::string& text, const std::string& name);

  // Empty, or what is wrong with the first field that the description does not have so.  Objects in the message are
  // looked into; fields of the conventions are always right.
  std::string findStranger(const message& m) const;

 private:
  struct Known {
    unsigned int id;
    std::string name;
  };

  std::string judge(unsigned int id) const;

  std::string service_;
  std::multimap<unsigned int, Known> fields_;  // by the id without its type
};

}  // namespace kl::test
