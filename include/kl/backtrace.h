#pragma once
// kl/backtrace.h: lets running code announce what it is doing, for the report of a crash.

#include "kl/export.h"

namespace kl {

class Dumper;
class message;

// A record on the stack of the code that announces itself.  While it lives, a crash report (and the report
// that SIGUSR2 asks for) shows what its dump() writes:
//
//     class Working : public kl::BacktraceInfo {
//      public:
//       explicit Working(const char* what) : what_(what) {}
//       void dump(kl::Dumper& out) override { out << "working on " << what_ << "\n"; }
//      ...
//     Working note("the interface table");   // until the end of the block
//
// Errors:    none.
// Ownership: the record is the caller's; the chain only points to it.  Records are destroyed in the reverse order of
//            their construction, which blocks see to by themselves.
// Threads:   one chain per process: only the thread that runs the loop makes records.  dump() is called from a signal
//            handler on the thread that crashed: it must not allocate, lock or use the stream library beyond the
//            operations of kl::Dumper.  A report shows at most 1600 bytes of a record.
// Cost:      two stores to make, one to drop.
class KL_API BacktraceInfo {
 public:
  BacktraceInfo(const BacktraceInfo&) = delete;
  BacktraceInfo& operator=(const BacktraceInfo&) = delete;
  virtual ~BacktraceInfo();

  virtual void dump(Dumper& out) = 0;

  // The record that was the youngest before this one; null for the first.
  BacktraceInfo* next() const { return next_; }

 protected:
  BacktraceInfo();

 private:
  BacktraceInfo* next_;
};

// Announces that a message is being worked on.  The report shows the label, then the message as text.
//
// Ownership: label and message are borrowed until the record is destroyed.
class KL_API MessageBacktraceInfo final : public BacktraceInfo {
 public:
  MessageBacktraceInfo(const char* label, const message& m) : label_(label), message_(&m) {}
  ~MessageBacktraceInfo() override;

  void dump(Dumper& out) override;

 private:
  const char* label_;
  const message* message_;
};

// The youngest record, null when there is none.
KL_API extern BacktraceInfo* backtraceInfoHead;

}  // namespace kl
