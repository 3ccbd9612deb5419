#pragma once
// accounts.h: what processes and users have used of their limits.

#include <sys/types.h>

#include <map>
#include <memory>
#include <utility>

#include "intake/limits.h"
#include "intake/rate_limit.h"
#include "keeping/log_book.h"
#include "keeping/system_users.h"

namespace logd {

// One user: its clients, and the remarks about them.
struct UserAccount {
  static constexpr unsigned int kRemarksPerSecond = 1;
  static constexpr unsigned int kMostRemarksAtOnce = 20;
  static constexpr unsigned int kMostSources = 2048;  // of all its clients, unless it is trusted

  uid_t uid = 0;
  bool isTrusted = false;         // one of the system's
  unsigned int clients = 0;       // connected now
  unsigned int processes = 0;     // that have an account
  std::size_t sources = 0;        // of its clients
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
// There are so many at most; the processes of a user for whom there is no room share one, as do users beyond
// kMostUsers.
//
// Errors:    none.
// Ownership: shares its accounts with the clients; borrows the limits.
// Threads:   belongs to one thread.
// Cost:      logarithmic in the number of accounts; a tick looks at each.
class Accounts {
 public:
  static constexpr std::size_t kMostUsers = 1024;
  static constexpr unsigned int kAccountsPerClient = 4;  // of one user; of all four times as many

  explicit Accounts(const Limits& limits, const SystemUsers& system = SystemUsers())
      : limits_(limits), system_(system) {}

  std::shared_ptr<UserAccount> userOf(uid_t uid);
  // The account of the process that `about` names.
  std::shared_ptr<ProcessAccount> processOf(const Origin& about);

  // A second has passed: reports what is left to report, and forgets the accounts that have recovered.
  void tick(LogBook& book, Nanoseconds now);

  std::size_t size() const { return processes_.size(); }

 private:
  using Process = std::pair<unsigned int, unsigned int>;  // its number and its user's

  bool hasRoomFor(const UserAccount& user) const;
  std::shared_ptr<ProcessAccount> add(const Process& process, const std::shared_ptr<UserAccount>& user,
                                      const Origin& about);

  const Limits& limits_;
  SystemUsers system_;
  std::map<uid_t, std::shared_ptr<UserAccount>> users_;
  std::map<Process, std::shared_ptr<ProcessAccount>> processes_;
};

}  // namespace logd
