#pragma once
// rule_table.h: the rules as a table of objects.

#include <functional>

#include "keeping/log_book.h"
#include "kl/looper.h"

namespace logd {

// Shows the topics and the files, and mutes topics.  Rules made here end with the process; those of the
// configuration come back.
//
// Errors:    files and their objects cannot be changed: ERROR_NOTALLOWED.
// Ownership: borrows the book.
// Threads:   that of the Looper.
// Cost:      in proportion to the number of topics.
class RuleTable : public kl::Handler {
 public:
  // `onMutesChanged` is called when a topic is muted, or no longer.
  RuleTable(LogBook& book, std::function<void()> onMutesChanged)
      : book_(book), onMutesChanged_(std::move(onMutesChanged)) {}

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
  std::function<void()> onMutesChanged_;
};

}  // namespace logd
