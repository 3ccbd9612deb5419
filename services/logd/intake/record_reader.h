#pragma once
// record_reader.h: the bytes that a client writes, as records.

#include <span>
#include <string_view>
#include <vector>

#include "keeping/line.h"

namespace logd {

// Takes the records of one client.
class RecordHost {
 public:
  virtual void onRegistration(unsigned int source, Topics topics) = 0;
  virtual void onText(unsigned int source, std::string_view text) = 0;

 protected:
  ~RecordHost() = default;
};

// Puts records together from what each read brings.
//
// Errors:    take() gives the reason why the bytes cannot be a client's; nothing more is to be fed to the reader then.
// Ownership: keeps a record that has begun; texts given to the host are borrowed for the call.
// Threads:   belongs to one thread.
// Cost:      one copy of what is read; at most one record, 64 KiB, is kept.
class RecordReader {
 public:
  // A source has at most so many topics.
  static constexpr std::size_t kMostTopics = 64;

  // Hands every whole record to the host.  Null, or what is wrong with the bytes.
  const char* take(std::span<const unsigned char> bytes, RecordHost& host);

  // Bytes of a record that is not whole yet.
  std::size_t pendingBytes() const { return pending_.size(); }

 private:
  std::vector<unsigned char> pending_;
};

}  // namespace logd
