#pragma once
// topic_names.h: what the topics are called.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "keeping/line.h"
#include "services/common/configuration_file.h"

namespace logd {

// Names of topics, both ways.  A list of them is a text with one topic a line, its number and its name, blanks
// between them; what stands behind a # is a remark:
//
//     4  error
//     8  debug     # to look for a fault
//
// Errors:    a line that is no such line is a mistake with its number; the others count.
// Ownership: a value.
// Threads:   as any value.
// Cost:      logarithmic in the number of names.
class TopicNames {
 public:
  static TopicNames parse(const std::string& text, const std::string& file, common::Mistakes& mistakes);

  // Null where a topic has none.
  const std::string* findName(Topic topic) const;
  // The topic of a name or of a number written out.
  std::optional<Topic> find(const std::string& word) const;
  // "error,netif", a topic without a name by its number; "-" without topics.
  std::string listOf(const Topics& topics) const;

  const std::map<Topic, std::string>& all() const { return names_; }

 private:
  // Null, or what is wrong with the line.
  const char* readLine(const std::string& line);

  std::map<Topic, std::string> names_;
};

}  // namespace logd
