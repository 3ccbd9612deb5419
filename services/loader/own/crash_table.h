#pragma once
// crash_table.h: the crashes that were kept, as the handler 20 of service 1.

#include "crashes/crash_store.h"
#include "kl/message.h"

namespace loader {

// Answers CMD_GETALL, CMD_GETOBJ and CMD_GETCOUNT at [1, LOADER_CRASHES].  A report tells what a service was at work on, so
// it is for those who may control the loader: root, and who `access` gives that right.
//
// Errors:    answered with error replies.
// Ownership: borrows the store.
// Threads:   belongs to one thread.
// Cost:      a list is made of what is in memory; a report is read from its file.
class CrashTable {
 public:
  explicit CrashTable(const CrashStore& store) : store_(store) {}

  // `request` is as any handler would get it.
  kl::message answer(const kl::message& request, unsigned int command) const;

 private:
  kl::message getAll(const kl::message& request) const;
  kl::message getObject(const kl::message& request) const;

  const CrashStore& store_;
};

}  // namespace loader
