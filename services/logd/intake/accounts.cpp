// Limits hold for a process and for a user, as the kernel names them, and not for a connection.
//
// A1  a line is taken from both buckets of its process or from neither
// A2  an account lives while a client uses it, and then until its buckets are full: a new one would be no better
// A3  whatever a user's processes do, at most kRemarksPerSecond remarks about them go into the log, after a burst

#include "intake/accounts.h"

#include <unistd.h>

#include <iterator>

#include "kl/services.h"

namespace logd {

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
  std::shared_ptr<UserAccount>& user = users_[uid];
  if (user == nullptr) {
    user = std::make_shared<UserAccount>();
    user->isTrusted = uid == 0 || uid == ::geteuid();
  }
  return user;
}

std::shared_ptr<ProcessAccount> Accounts::processOf(const Origin& about) {
  std::shared_ptr<ProcessAccount>& process = processes_[{about.pid, about.uid}];
  if (process == nullptr) process = std::make_shared<ProcessAccount>(limits_, userOf(about.uid), about);
  process->setAbout(about);
  return process;
}

void Accounts::tick(LogBook& book, Nanoseconds now) {
  for (auto entry = processes_.begin(); entry != processes_.end();) {
    ProcessAccount& process = *entry->second;
    const bool isUsed = entry->second.use_count() > 1;
    if (!isUsed || process.mayWrite(now)) process.reportDrops(book, now);
    entry = isUsed || !process.isRested(now) ? std::next(entry) : processes_.erase(entry);  // A2
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
