#pragma once
// log.h: the log of the system, for people.

#include <map>
#include <string>
#include <vector>

#include "ask/fetch.h"
#include "verbs/verb.h"

namespace klctl {

class LogFilter;

// The topics that the log service has names for.
class LogTopics {
 public:
  // Asks the log service.  Throws Failure.
  explicit LogTopics(const Exchange& exchange);

  // The topic of a name or a number.  Throws Failure(kRefused).
  unsigned int find(const std::string& word) const;
  // "error,netif", a topic without a name by its number.
  std::string listOf(const std::vector<unsigned int>& topics) const;
  std::vector<std::string> names() const;

 private:
  std::map<unsigned int, std::string> names_;
};

// The request for the lines of the filter.
kl::message logRequest(const LogFilter& filter);

// Says so where the log service shows the user its own lines alone.  Throws Failure.
void remarkLimits(const Channels& channels);

// One line of the log as text, in the colour of its severity.
//
//     2026-11-21 06:08:26.123 netif[812] warning,netif: eth0 is down
std::string logLine(const kl::message& object, const LogTopics& topics, bool inColour);

// True when the standard output is a terminal that may be coloured.
bool wantsColour();

void showLog(const CommandLine& line, const Channels& channels);
void muteTopic(const CommandLine& line, const Channels& channels);
void unmuteTopic(const CommandLine& line, const Channels& channels);

}  // namespace klctl
