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

namespace logd {
namespace {

using Bytes = std::span<const unsigned char>;

constexpr std::size_t kLineHead = 4;
constexpr std::size_t kRegistrationHead = 8;
constexpr std::size_t kKeptCapacity = 4096;

unsigned int u16(Bytes bytes, std::size_t at) { return bytes[at] * 256u + bytes[at + 1]; }

const char* takeRegistration(Bytes record, RecordHost& host) {
  if (record.size() < kRegistrationHead) return "a control record that is too short";
  if (u16(record, 4) != 0) return "a control record of an unknown kind";
  if (record.size() % 2 != 0) return "a registration of odd length";
  const unsigned int source = u16(record, 6);
  if (source == 0) return "a registration of source 0";
  Topics topics;
  for (std::size_t at = kRegistrationHead; at < record.size(); at += 2)
    topics.push_back(static_cast<Topic>(u16(record, at)));
  if (topics.size() > RecordReader::kMostTopics) return "a registration with too many topics";
  host.onRegistration(source, std::move(topics));
  return nullptr;
}

const char* takeRecord(Bytes record, RecordHost& host) {
  const unsigned int source = u16(record, 2);
  if (source == 0) return takeRegistration(record, host);
  const Bytes text = record.subspan(kLineHead);
  host.onText(source, {reinterpret_cast<const char*>(text.data()), text.size()});
  return nullptr;
}

}  // namespace

const char* RecordReader::take(Bytes bytes, RecordHost& host) {
  pending_.insert(pending_.end(), bytes.begin(), bytes.end());
  Bytes rest = pending_;
  while (rest.size() >= 2) {
    const std::size_t length = u16(rest, 0);
    if (length < kLineHead) return "a record with a bad length";
    if (rest.size() < length) break;
    if (const char* fault = takeRecord(rest.first(length), host); fault != nullptr) return fault;
    rest = rest.subspan(length);
  }
  pending_.erase(pending_.begin(), pending_.end() - static_cast<std::ptrdiff_t>(rest.size()));
  if (pending_.empty() && pending_.capacity() > kKeptCapacity) pending_.shrink_to_fit();
  return nullptr;
}

}  // namespace logd
