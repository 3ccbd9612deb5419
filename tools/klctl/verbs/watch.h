#pragma once
// watch.h: a table of objects as it changes.

#include <map>
#include <string>

#include "ask/courier.h"
#include "ask/events.h"
#include "verbs/command_line.h"
#include "verbs/commands.h"

namespace klctl {

// The courier's part: a kl::Watcher that gives everything it is told.
Job watchJob(const kl::message& request, int timeoutTicks);

// What there is to say about events.
class WatchReport {
 public:
  struct Text {
    std::string results;  // for the standard output
    std::string remark;   // a sentence for the standard error stream
  };

  WatchReport(const CommandLine& line, const Subject& subject) : line_(line), subject_(subject) {}

  // The table comes when it is complete, changes as they come; with --json or --dump every object as it comes.  After the
  // service was gone, only what is not as it was.  Throws Failure(kRefused) when the service refuses from the start.
  Text take(const Event& event);

 private:
  using Objects = std::map<unsigned int, kl::message>;

  std::string changed(const kl::message& object);
  std::string removed(unsigned int id);
  Text complete();
  std::string lost(const kl::message& reason);
  std::string show(unsigned int id, const kl::message& object) const;
  bool isAtOnce() const { return line_.json || line_.dump; }

  const CommandLine& line_;
  const Subject& subject_;
  Objects objects_;
  bool complete_ = false;   // nothing is outstanding
  bool everShown_ = false;  // it was complete once
  bool lost_ = false;       // the user was told so
};

// Follows the table until the user interrupts: `print` takes what take() returns.
using Print = std::function<void(const WatchReport::Text& text)>;
void watch(const CommandLine& line, const Subject& subject, const Print& print);

}  // namespace klctl
