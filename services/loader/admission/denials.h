#pragma once
// denials.h: the lines about requests that their sender had no right to.

#include <sys/types.h>

#include <map>
#include <string>

#include "config/configuration.h"
#include "logging/log.h"
#include "routing/service.h"

namespace loader {

// Writes one line for a request that was not delivered, which names the command that explains the decision.  A user
// who asks and asks must not fill the log: each has a token bucket, and those beyond the bound share one.
//
// Errors:    lines that are too many are dropped, and the next one of the user says how many.
// Ownership: borrows the log and the configuration.
// Threads:   belongs to one thread.
// Cost:      a line; for dropped ones a look into a map.
class Denials {
 public:
  static constexpr unsigned int kBurst = 5;      // lines at once; one more for each second
  static constexpr std::size_t kMostUsers = 64;  // that are told apart

  Denials(const Configuration& configuration, Log& log) : configuration_(configuration), log_(log) {}

  // `now` in seconds from any beginning.
  void report(const Service& sender, const Envelope& e, unsigned int toId, Path rest, const Access& access,
              unsigned int now);

 private:
  struct Bucket {
    unsigned int tokens = kBurst;
    unsigned int since = 0;
    unsigned int dropped = 0;
  };

  Bucket& bucketOf(uid_t uid, unsigned int now);
  std::string pathText(unsigned int toId, Path rest) const;

  const Configuration& configuration_;
  Log& log_;
  std::map<uid_t, Bucket> buckets_;
  Bucket shared_;
};

}  // namespace loader
