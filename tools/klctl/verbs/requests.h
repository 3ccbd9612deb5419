#pragma once
// requests.h: the verbs about requests that are not answered: which there are, and who is to blame.

#include <map>
#include <string>

#include "ask/open_requests.h"
#include "values/dictionary.h"
#include "verbs/verb.h"

namespace klctl {

void listRequests(const CommandLine& line, const Channels& channels);
void showStuck(const CommandLine& line, const Channels& channels);

// The commands of requests, by the names in the description of the asked service: "CMD_GETALL", "release_all".  Each
// description is read once.
class CommandNames {
 public:
  explicit CommandNames(const CommandLine& line) : line_(line) {}

  std::string of(const OpenRequests& open, const OpenRequest& request);

 private:
  const CommandLine& line_;
  std::map<std::string, Dictionary> dictionaries_;  // by service
};

}  // namespace klctl
