#pragma once
// watch.h: a table of objects as it changes.

#include <map>
#include <string>

#include "ask/courier.h"
#include "ask/events.h"
#include "verbs/request.h"

namespace klctl {

// The courier's part: a kl::Watcher that emits each of its callbacks as an event.
Job watchJob(const kl::message& request, int timeoutTicks);

// Turns events into text.
class WatchReport {
 public:
  struct Text {
    std::string results;  // for the standard output
    std::string remark;   // a sentence for the standard error stream
  };

  WatchReport(const CommandLine& line, const PreparedRequest& prepared, bool isTerminal = false)
      : line_(line), prepared_(prepared), isTerminal_(isTerminal) {}

  // The table is printed when it is complete and each change as it comes; with --json or --dump each object as it comes.
  // After the service was gone only the differences are printed.  Throws Failure(kRefused) when the service refuses from
  // the start.
  Text take(const Event& event);

 private:
  using Objects = std::map<unsigned int, kl::message>;

  std::string changed(const kl::message& object);
  std::string removed(unsigned int id);
  Text complete();
  std::string lost(const kl::message& reason);
  std::string show(unsigned int id, const kl::message& object) const;
  std::string title(unsigned int id) const;
  bool isAtOnce() const { return line_.json || line_.dump; }

  const CommandLine& line_;
  const PreparedRequest& prepared_;
  bool isTerminal_;
  Objects objects_;
  bool complete_ = false;   // nothing is outstanding
  bool everShown_ = false;  // it was complete once
  bool lost_ = false;       // and this was reported
};

// Follows the table until the user interrupts.
void watchTable(const CommandLine& line, const Channels& channels);

}  // namespace klctl
