#pragma once
// accounts.h: who takes how much of the loader.

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <unordered_map>

#include "quota/limits.h"
#include "quota/pace.h"

namespace loader {

// How much of its limits something may fill, so that what matters more still finds room.
enum class Part : unsigned char {
  kMost = 6,     // requests and notifications
  kReplies = 7,  // what somebody asked for
  kWhole = 8,    // words of the loader itself: refusals, ends, control messages
};

// The limits that several accounts share, and what they take of them together.
struct Pool {
  Amounts mostOfOne;
  Amounts most;
  Amounts used;
  bool isReserve = false;
};

// The resources that one user, or one configured service, takes.
//
// Q1  what a pool's accounts take is what the pool counts as taken
//
// Errors:    none.
// Ownership: borrows its pool.
// Threads:   belongs to one thread.
// Cost:      constant time.
class Account {
 public:
  Account(Pool& pool, Pace pace) : pool_(pool), pace_(pace) {}
  Account(const Account&) = delete;
  Account& operator=(const Account&) = delete;

  // True while so much more stays within its limit and within that of its pool.
  bool hasRoomFor(Resource resource, std::size_t amount, Part part = Part::kWhole) const;
  // True when it has more than one of the two limits allows.
  bool isOver(Resource resource) const { return !hasRoomFor(resource, 0); }

  void take(Resource resource, std::size_t amount);
  void giveBack(Resource resource, std::size_t amount);
  std::size_t used(Resource resource) const { return used_[resource]; }

  // True for an account of the reserve: its connections and unfinished frames are counted and never refused.
  bool isTrusted() const { return pool_.isReserve; }

  // When its connections may come, and how often the log has a line about it.
  Pace& pace() { return pace_; }

  bool isIdle(unsigned int now) const { return used_ == Amounts() && pace_.isRested(now); }

 private:
  Pool& pool_;
  Amounts used_;
  Pace pace_;
};

// Something that takes an amount of one resource, and gives it back when it goes.
//
// Ownership: borrows its account, which outlives it; without one it counts nothing.
// Cost:      a comparison while the amount stays the same.
class Charge {
 public:
  Charge() = default;
  Charge(const Charge&) = delete;
  Charge& operator=(const Charge&) = delete;
  ~Charge() { bind(nullptr, resource_); }

  // From now on `account` has the amount; nobody when it is null.
  void bind(Account* account, Resource resource);
  void set(std::size_t amount) {
    if (amount != amount_) change(amount);
  }
  Account* account() const { return account_; }

 private:
  void change(std::size_t amount);

  Account* account_ = nullptr;
  Resource resource_{};
  std::size_t amount_ = 0;
};

// All accounts: one for each ordinary user, and from the reserve one for root, one for the loader's own user, and one
// for each configured service, whatever user it runs as.
//
// Errors:    none.
// Ownership: owns the accounts.  That of an ordinary user may go while it takes nothing and another user comes; all
//            others stay.
// Threads:   belongs to one thread.
// Cost:      constant time, and a walk over all accounts when their number has doubled.
class Accounts {
 public:
  Accounts(const Limits& limits, uid_t ownUser);
  Accounts(const Accounts&) = delete;
  Accounts& operator=(const Accounts&) = delete;

  Account& ofUser(uid_t uid, unsigned int now);
  Account& ofService(unsigned int id);

  bool isTrusted(uid_t uid) const { return uid == 0 || uid == ownUser_; }
  std::size_t users() const { return users_.size(); }

 private:
  void dropIdle(unsigned int now);

  Limits limits_;
  uid_t ownUser_;
  Pool ordinary_;
  Pool trusted_;
  std::unordered_map<uid_t, std::unique_ptr<Account>> users_;
  std::unordered_map<unsigned int, std::unique_ptr<Account>> services_;
  std::size_t dropAt_ = 64;  // so many accounts of users are looked through for idle ones
};

}  // namespace loader
