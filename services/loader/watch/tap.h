#pragma once
// tap.h: what one tap shows, until its reader takes it.

#include <vector>

#include "routing/outbox.h"
#include "transport/buffer.h"
#include "watch/tap_filter.h"

namespace loader {

// A queue of its own for each tap.  Messages that find no room in it are lost, and the number of the lost stands in the
// queue where they would.
//
// Errors:    none.
// Ownership: borrows the row of its reader.
// Threads:   belongs to one thread.
// Cost:      the bytes of a message's headers, written one after the other; no message is built before it is sent.
class Tap {
 public:
  static constexpr std::size_t kMostBytes = 256 * 1024;   // in the queue
  static constexpr std::size_t kMostUnread = 64 * 1024;   // on the way to the reader
  static constexpr std::size_t kWorthSending = 8 * 1024;  // without waiting for more

  Tap(Service& reader, std::vector<unsigned int> path, TapFilter filter)
      : reader_(&reader), path_(std::move(path)), filter_(std::move(filter)) {}

  bool belongsTo(const Service& service) const { return reader_ == &service; }
  bool isAt(const Service& service, const std::vector<unsigned int>& path) const {
    return belongsTo(service) && path_ == path;
  }
  const TapFilter& filter() const { return filter_; }

  void add(const PassingMessage& message);

  bool isEmpty() const { return queue_.empty() && lost_ == 0; }
  bool isWorthSending() const { return queue_.size() >= kWorthSending; }

  // Sends what the reader has room for.
  void send(Outbox& outbox);

 private:
  void addLost();
  bool sendBatch(Outbox& outbox);

  Service* reader_;
  std::vector<unsigned int> path_;  // inside the reader
  TapFilter filter_;
  Buffer queue_;                 // objects, each behind the number of its bytes
  unsigned long long lost_ = 0;  // since the last one in the queue
};

}  // namespace loader
