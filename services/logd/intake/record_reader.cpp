// A record is as long as its first field says, so what a read brought is cut by lengths, and what is left waits for the
// rest.  A record that no client of ours writes ends it all: behind a length that is not one nothing can be found.

#include "intake/record_reader.h"

#include <utility>

#include "services/common/log_records.h"

namespace logd {
namespace {

using Bytes = std::span<const unsigned char>;

constexpr std::size_t kKeptCapacity = 4096;

// Null, or what is wrong with the record.
const char* readRegistration(Bytes bytes, Record& record) {
  if (bytes.size() < common::kRegistrationHeadBytes) return "a control record that is too short";
  if (common::kindOfControl(bytes.data()) != 0) return "a control record of an unknown kind";
  if (bytes.size() % 2 != 0) return "a registration of odd length";
  record.source = common::sourceOfRegistration(bytes.data());
  if (record.source == 0) return "a registration of source 0";
  const std::size_t topics = (bytes.size() - common::kRegistrationHeadBytes) / 2;
  for (std::size_t i = 0; i < topics; ++i) record.topics.push_back(common::topicOf(bytes.data(), i));
  return record.topics.size() > RecordReader::kMostTopics ? "a registration with too many topics" : nullptr;
}

// The same.
const char* readRecord(Bytes bytes, Record& record) {
  const unsigned int source = common::sourceOfLine(bytes.data());
  record = {source, source == 0, {}, {}};
  if (record.isRegistration) return readRegistration(bytes, record);
  const Bytes text = bytes.subspan(common::kLineHeadBytes);
  record.text = {reinterpret_cast<const char*>(text.data()), text.size()};
  return nullptr;
}

}  // namespace

void RecordReader::add(Bytes bytes) { pending_.insert(pending_.end(), bytes.begin(), bytes.end()); }

bool RecordReader::next(Record& record) {
  const Bytes rest = Bytes(pending_).subspan(taken_);
  if (fault_ != nullptr || rest.size() < 2) return stop(fault_);
  const std::size_t length = common::lengthOf(rest.data());
  if (length < common::kLineHeadBytes) return stop("a record with a bad length");
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
