// The records that clients write.  All numbers have 16 bits and are big-endian; records follow each other without
// anything in between:
//
//     registration   0  length of the whole record: 8 + 2 for each topic
//                    2  0
//                    4  0
//                    6  id of the source, not 0
//                    8  its topics, 2 bytes each
//
//     line           0  length of the whole record: 4 + that of the text
//                    2  id of the source
//                    4  the text
//
// Source 2 with the topics 5 and 7 logs "abc":   000c 0000 0000 0002 0005 0007   0007 0002 616263

#include "intake/record_reader.h"

#include <utility>

namespace logd {
namespace {

using Bytes = std::span<const unsigned char>;

constexpr std::size_t kLineHead = 4;
constexpr std::size_t kRegistrationHead = 8;
constexpr std::size_t kKeptCapacity = 4096;

unsigned int u16(Bytes bytes, std::size_t at) { return bytes[at] * 256u + bytes[at + 1]; }

// Null, or what is wrong with the record.
const char* readRegistration(Bytes bytes, Record& record) {
  if (bytes.size() < kRegistrationHead) return "a control record that is too short";
  if (u16(bytes, 4) != 0) return "a control record of an unknown kind";
  if (bytes.size() % 2 != 0) return "a registration of odd length";
  record.source = u16(bytes, 6);
  if (record.source == 0) return "a registration of source 0";
  for (std::size_t at = kRegistrationHead; at < bytes.size(); at += 2)
    record.topics.push_back(static_cast<Topic>(u16(bytes, at)));
  return record.topics.size() > RecordReader::kMostTopics ? "a registration with too many topics" : nullptr;
}

// The same.
const char* readRecord(Bytes bytes, Record& record) {
  record = {u16(bytes, 2), u16(bytes, 2) == 0, {}, {}};
  if (record.isRegistration) return readRegistration(bytes, record);
  const Bytes text = bytes.subspan(kLineHead);
  record.text = {reinterpret_cast<const char*>(text.data()), text.size()};
  return nullptr;
}

}  // namespace

void RecordReader::add(Bytes bytes) { pending_.insert(pending_.end(), bytes.begin(), bytes.end()); }

bool RecordReader::next(Record& record) {
  const Bytes rest = Bytes(pending_).subspan(taken_);
  if (fault_ != nullptr || rest.size() < 2) return stop(fault_);
  const std::size_t length = u16(rest, 0);
  if (length < kLineHead) return stop("a record with a bad length");
  if (rest.size() < length) return stop(nullptr);
  if (const char* fault = readRecord(rest.first(length), record); fault != nullptr) return stop(fault);
  taken_ += length;
  return true;
}

// There is no whole record any more: only what has begun is kept.
bool RecordReader::stop(const char* fault) {
  fault_ = fault;
  pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(std::exchange(taken_, 0)));
  if (pending_.empty() && pending_.capacity() > kKeptCapacity) pending_.shrink_to_fit();
  return false;
}

}  // namespace logd
