#pragma once
// trace.h: the messages that pass, one readable line each.

#include <map>
#include <string>
#include <tuple>

#include "ask/open_requests.h"
#include "values/json.h"
#include "verbs/requests.h"
#include "verbs/verb.h"

namespace klctl {

// Turns what a tap shows into lines.  A request that was seen gives its reply an exact age.
//
// Errors:    none.
// Ownership: borrows the command line.
// Threads:   belongs to one thread.
// Cost:      what is remembered of requests is bounded.
class TraceReport {
 public:
  static constexpr std::size_t kMostRemembered = 4096;

  TraceReport(const CommandLine& line, OpenRequests services)
      : line_(line), services_(std::move(services)), names_(line) {}

  // A whole line, also for a number of lost messages.
  std::string lineOf(const kl::message& shown);
  // The same of a message as JSON.
  Json objectOf(const kl::message& shown);

  unsigned long long messages() const { return messages_; }
  unsigned long long lost() const { return lost_; }
  // "17 messages, 0 lost"
  std::string countText() const;

  // Of a service: as the loader called it in the beginning, or its number.
  std::string nameOf(unsigned int service) const;

 private:
  using Request = std::tuple<unsigned int, unsigned int, unsigned int>;  // asker, asked, number

  std::string lostText(unsigned long long count);
  void addAge(Json& row, const kl::message& shown);
  Json rowOf(const kl::message& shown);
  std::string kindOf(const kl::message& shown);
  std::string commandOf(const kl::message& shown);
  std::string receiversOf(const kl::message& shown) const;

  const CommandLine& line_;
  OpenRequests services_;
  CommandNames names_;
  std::map<Request, unsigned long long> seenAt_;
  unsigned long long messages_ = 0;
  unsigned long long lost_ = 0;
};

void traceMessages(const CommandLine& line, const Channels& channels);

}  // namespace klctl
