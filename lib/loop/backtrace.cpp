// Records on the stack that announce what the code is doing.

#include "kl/backtrace.h"

#include "kl/message.h"

namespace kl {

BacktraceInfo* backtraceInfoHead = nullptr;

BacktraceInfo::BacktraceInfo() : next_(backtraceInfoHead) { backtraceInfoHead = this; }

BacktraceInfo::~BacktraceInfo() { backtraceInfoHead = next_; }

MessageBacktraceInfo::~MessageBacktraceInfo() = default;

// Async-signal-safe: a Dumper copies into its buffer, and the message is only read.
void MessageBacktraceInfo::dump(Dumper& out) {
  out << label_ << "\n";
  message_->dump2(out, "", 0);
}

}  // namespace kl
