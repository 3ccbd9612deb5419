#pragma once
// rule_table.h: the rules as a table of objects.

#include "keeping/log_book.h"
#include "kl/looper.h"

namespace logd {

// Hears that a topic is muted, or no longer.
class RuleHost {
 public:
  virtual void onMutesChanged() = 0;

 protected:
  ~RuleHost() = default;
};

// Shows the topics and the files, and mutes topics.  Rules made here end with the process; those of the
// configuration come back.
//
// Errors:    files and their objects cannot be changed: ERROR_NOTALLOWED.
// Ownership: borrows the book and the host.
// Threads:   that of the Looper.
// Cost:      in proportion to the number of topics.
class RuleTable : public kl::Handler {
 public:
  RuleTable(LogBook& book, RuleHost& host) : book_(book), host_(host) {}

  kl::message getObject(unsigned int id) override;

 private:
  kl::message cmdGetObj(const kl::message& request, unsigned int id) override;
  kl::message cmdSetObj(const kl::message& request, unsigned int id) override;
  kl::message cmdGetAll(const kl::message& request, unsigned int start, unsigned int count) override;
  kl::message cmdGetCount(const kl::message& request) override;

  std::vector<unsigned int> ids() const;
  kl::message topicObject(Topic topic) const;
  kl::message fileObject(unsigned int id) const;

  LogBook& book_;
  RuleHost& host_;
};

}  // namespace logd
