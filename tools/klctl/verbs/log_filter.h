#pragma once
// log_filter.h: which lines of the log the user wants to see.

#include <regex.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ask/fetch.h"
#include "verbs/command_line.h"

namespace klctl {

class LogTopics;

// The topic of the highest severity among those of a line; information where there is none.
unsigned int severityOf(const std::vector<unsigned int>& topics);

// The lines of one service: those of its processes, and what the loader says of it or has read from its streams.  The
// loader's lines name the number of each process, so lines of former ones are known behind the line that names them.
class LinesOfService {
 public:
  // Asks the loader for the service's number and its process.  Throws Failure.
  LinesOfService(const std::string& word, const Exchange& exchange);

  // Expects the lines in the order of the log.
  bool has(const kl::message& line);

 private:
  std::string label_;  // "leases (300", with which the loader's lines about it begin
  std::set<unsigned int> pids_;
};

// Lines pass that have one of the topics, are at least that severe, belong to the service and match the pattern, as far
// as each is asked for.
//
//     LogFilter filter(line.log, topics, exchange);
//     filter.narrow(request);                        // what the log service can leave out by itself
//     if (filter.passes(object)) show(object);
//
// Errors:    Failure(kUsage) for a level or a pattern that is none, Failure(kRefused) for an unknown topic or service.
// Ownership: owns everything.
class LogFilter {
 public:
  LogFilter(const LogWords& words, const LogTopics& topics, const Exchange& exchange);

  void narrow(kl::message& request) const;
  bool passes(const kl::message& line);

 private:
  struct FreePattern {
    void operator()(regex_t* pattern) const {
      ::regfree(pattern);
      delete pattern;
    }
  };

  void readPattern(const std::string& text);

  std::vector<unsigned int> topics_;
  std::optional<unsigned long long> since_;
  std::optional<unsigned int> level_;
  std::optional<LinesOfService> service_;
  std::string plain_;  // the pattern, where it is nothing but its letters
  std::unique_ptr<regex_t, FreePattern> pattern_;
};

}  // namespace klctl
