#pragma once
// accounts.h: what processes and users have used of their limits.

#include <sys/types.h>

#include <map>
#include <memory>
#include <utility>

#include "intake/limits.h"
#include "intake/rate_limit.h"
#include "keeping/log_book.h"

namespace logd {

// One user: its clients, and the remarks about them.
struct UserAccount {
  static constexpr unsigned int kRemarksPerSecond = 1;
  static constexpr unsigned int kMostRemarksAtOnce = 20;

  bool isTrusted = false;         // root, or the log service's own user
  unsigned int clients = 0;       // connected now
  bool isRefused = false;         // reported, and not taken back by a client that was let in
  unsigned long long unsaid = 0;  // remarks that were left out
  RateLimit remarks{kRemarksPerSecond, kMostRemarksAtOnce};
};

// One process, over all its connections.
class ProcessAccount {
 public:
  ProcessAccount(const Limits& limits, std::shared_ptr<UserAccount> user, Origin about)
      : user_(std::move(user)),
        about_(std::move(about)),
        lines_(limits.linesPerSecond, limits.burst),
        bytes_(limits.bytesPerSecond, limits.bytesBurst) {}

  UserAccount& user() { return *user_; }
  // The name that remarks give it: a number may be used again by another program.
  void setAbout(const Origin& about) { about_ = about; }

  // Takes one line of so many bytes; false, and it counts as dropped, where that is more than the process may write.
  bool takeLine(Nanoseconds now, unsigned int bytes);
  bool mayWrite(Nanoseconds now) { return lines_.wouldAllow(now) && bytes_.wouldAllow(now); }
  // Reports how many lines were dropped since the last report, if the user's remarks allow it.
  void reportDrops(LogBook& book, Nanoseconds now);
  // Makes one remark about the process, if the user's remarks allow it.
  void remark(LogBook& book, Nanoseconds now, const std::string& text);

  // Nothing of it is remembered that a new one would not be.
  bool isRested(Nanoseconds now) { return dropped_ == 0 && lines_.isFull(now) && bytes_.isFull(now); }

 private:
  std::shared_ptr<UserAccount> user_;
  Origin about_;
  RateLimit lines_;
  RateLimit bytes_;
  unsigned long long dropped_ = 0;
};

// All accounts.  One that nobody uses is kept until its limits have recovered, so that connecting again buys nothing.
//
// Errors:    none.
// Ownership: shares its accounts with the clients; borrows the limits.
// Threads:   belongs to one thread.
// Cost:      logarithmic in the number of accounts; a tick looks at each.
class Accounts {
 public:
  explicit Accounts(const Limits& limits) : limits_(limits) {}

  std::shared_ptr<UserAccount> userOf(uid_t uid);
  // The account of the process that `about` names.
  std::shared_ptr<ProcessAccount> processOf(const Origin& about);

  // A second has passed: reports what is left to report, and forgets the accounts that have recovered.
  void tick(LogBook& book, Nanoseconds now);

  std::size_t size() const { return processes_.size(); }

 private:
  using Process = std::pair<unsigned int, unsigned int>;  // its number and its user's

  const Limits& limits_;
  std::map<uid_t, std::shared_ptr<UserAccount>> users_;
  std::map<Process, std::shared_ptr<ProcessAccount>> processes_;
};

}  // namespace logd
