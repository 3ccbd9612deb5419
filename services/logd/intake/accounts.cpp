// Limits hold for a process and for a user, as the kernel names them, and not for a connection.
//
// A1  a line is taken from both buckets of its process or from neither
// A2  an account lives while a client uses it, and then until its buckets are full: a new one would be no better
// A3  whatever a user's processes do, at most kRemarksPerSecond remarks about them go into the log, after a burst
// A4  a process without room for an account of its own uses that of its user's others, which has the number 0; a user
//     without one that of kOthers.  The last quarter of the accounts is for the system

#include "intake/accounts.h"

#include <iterator>

#include "kl/services.h"

namespace logd {
namespace {

constexpr uid_t kOthers = static_cast<uid_t>(-1);  // the number that no user has
constexpr char kOthersName[] = "others";

}  // namespace

// A1
bool ProcessAccount::takeLine(Nanoseconds now, unsigned int bytes) {
  if (lines_.wouldAllow(now) && bytes_.allows(now, bytes)) return lines_.allows(now);
  ++dropped_;
  return false;
}

void ProcessAccount::reportDrops(LogBook& book, Nanoseconds now) {
  if (dropped_ == 0 || !user_->remarks.allows(now)) return;  // A3: counted on, and reported later
  const std::string count = std::to_string(std::exchange(dropped_, 0));
  book.add({timeOfDay(), ownOrigin(kl::TOPIC_WARNING, &about_), count + " lines dropped: they came too fast"},
           now);
}

void ProcessAccount::remark(LogBook& book, Nanoseconds now, const std::string& text) {
  if (user_->remarks.allows(now)) book.say(kl::TOPIC_WARNING, text, &about_);
  else ++user_->unsaid;  // A3
}

std::shared_ptr<UserAccount> Accounts::userOf(uid_t uid) {
  const bool isTrusted = system_.have(uid);
  if (!isTrusted && users_.size() >= kMostUsers && !users_.contains(uid)) uid = kOthers;
  std::shared_ptr<UserAccount>& user = users_[uid];
  if (user == nullptr) {
    user = std::make_shared<UserAccount>();
    user->uid = uid;
    user->isTrusted = isTrusted;
  }
  return user;
}

std::shared_ptr<ProcessAccount> Accounts::processOf(const Origin& about) {
  if (const auto known = processes_.find({about.pid, about.uid}); known != processes_.end()) {
    known->second->setAbout(about);
    return known->second;
  }
  const std::shared_ptr<UserAccount> user = userOf(about.uid);
  if (hasRoomFor(*user)) return add({about.pid, about.uid}, user, about);
  return add({0, user->uid}, user, {kOthersName, 0, 0, {}, user->uid});
}

// A4
bool Accounts::hasRoomFor(const UserAccount& user) const {
  const std::size_t most = std::size_t{limits_.clients} * kAccountsPerClient * kAccountsPerClient;
  if (user.isTrusted) return processes_.size() < most;
  return processes_.size() < most - most / 4 &&
         user.processes < std::size_t{limits_.clientsPerUser} * kAccountsPerClient;
}

std::shared_ptr<ProcessAccount> Accounts::add(const Process& process,
                                              const std::shared_ptr<UserAccount>& user, const Origin& about) {
  std::shared_ptr<ProcessAccount>& account = processes_[process];
  if (account == nullptr) {
    account = std::make_shared<ProcessAccount>(limits_, user, about);
    ++user->processes;
  }
  return account;
}

void Accounts::tick(LogBook& book, Nanoseconds now) {
  for (auto entry = processes_.begin(); entry != processes_.end();) {
    ProcessAccount& process = *entry->second;
    const bool isUsed = entry->second.use_count() > 1;
    if (!isUsed || process.mayWrite(now)) process.reportDrops(book, now);
    if (isUsed || !process.isRested(now)) {
      ++entry;
      continue;
    }
    --process.user().processes;
    entry = processes_.erase(entry);  // A2
  }
  for (auto entry = users_.begin(); entry != users_.end();) {
    UserAccount& user = *entry->second;
    if (user.unsaid > 0 && user.remarks.allows(now))
      book.say(kl::TOPIC_WARNING, "left out " + std::to_string(std::exchange(user.unsaid, 0)) +
                                      " remarks about processes of the user " + std::to_string(entry->first));
    const bool isUsed = entry->second.use_count() > 1 || user.unsaid > 0 || !user.remarks.isFull(now);
    entry = isUsed ? std::next(entry) : users_.erase(entry);
  }
}

}  // namespace logd
