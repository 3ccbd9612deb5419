#pragma once
// record_reader.h: the bytes that a client writes, as records.

#include <span>
#include <string_view>
#include <vector>

#include "keeping/line.h"

namespace logd {

// One record of a client: a registration of a source, or a line of one.
struct Record {
  unsigned int source = 0;
  bool isRegistration = false;
  Topics topics;          // of a registration
  std::string_view text;  // of a line; borrowed from the reader until its next call
};

// Puts records together from what each read brings.
//
//     reader.add(bytes);
//     for (Record record; reader.next(record);) use(record);
//     if (reader.fault() != nullptr) ...          // no client of ours: disconnect it
//
// Errors:    fault() is the reason why the bytes cannot be a client's; no record comes any more then.
// Ownership: keeps a record that has begun.
// Threads:   belongs to one thread.
// Cost:      one copy of what is read; at most one record, 64 KiB, is kept.
class RecordReader {
 public:
  // A source has at most so many topics.
  static constexpr std::size_t kMostTopics = 64;

  // Takes what a read brought.
  void add(std::span<const unsigned char> bytes);
  // The next whole record; false where there is none.
  bool next(Record& record);
  // The fault of the bytes; null: none so far.
  const char* fault() const { return fault_; }

  // Bytes that are in no record yet.
  std::size_t pendingBytes() const { return pending_.size() - taken_; }

 private:
  bool stop(const char* fault);

  std::vector<unsigned char> pending_;
  std::size_t taken_ = 0;  // bytes of pending_ that were given out as records
  const char* fault_ = nullptr;
};

}  // namespace logd
