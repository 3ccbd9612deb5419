// An object is written as the bytes of a message at once, its numbers in their long form: to build a message of each
// would cost as much as to carry what it tells of.

#include "watch/tap.h"

#include <time.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "kl/chunk.h"
#include "services/common/byte_order.h"
#include "services/common/tap.h"

namespace loader {
namespace {

constexpr std::size_t kLengthBytes = 4;
constexpr std::size_t kMostHeaderBytes = 256;
constexpr unsigned int kMostReceivers = 8;  // that are shown
constexpr unsigned int kTrue = 1U << 24;

using Objects = std::vector<kl::message::flat_message>;

unsigned long long microsecondsNow() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<unsigned long long>(now.tv_sec) * 1'000'000 +
         static_cast<unsigned long long>(now.tv_nsec) / 1000;
}

// Writes an object into room that is known to suffice.
class ObjectWriter {
 public:
  explicit ObjectWriter(unsigned char* at) : begin_(at), at_(at + kLengthBytes) {
    *at_++ = 'M';
    *at_++ = '2';
  }

  void flag(unsigned int id) { u32(id | kTrue); }
  void number(unsigned int id, unsigned int value) {
    u32(id);
    u32(value);
  }
  void longNumber(unsigned int id, unsigned long long value) {
    number(id, static_cast<unsigned int>(value));
    u32(static_cast<unsigned int>(value >> 32));
  }
  void numbers(unsigned int id, std::span<const unsigned int> values) {
    u32(id);
    at_ = common::storeLe16(at_, values.size());
    for (const unsigned int value : values) u32(value);
  }
  void bytes(unsigned int id, std::span<const unsigned char> bytes) {
    u32(id);
    at_ = common::storeLe16(at_, bytes.size());
    std::memcpy(at_, bytes.data(), bytes.size());
    at_ += bytes.size();
  }
  // The bytes of all that was written.
  std::size_t finish() {
    const auto size = static_cast<std::size_t>(at_ - begin_);
    common::storeLe32(begin_, size - kLengthBytes);
    return size;
  }

 private:
  void u32(unsigned int value) { at_ = common::storeLe32(at_, value); }

  unsigned char* begin_;
  unsigned char* at_;
};

void writeReceivers(ObjectWriter& writer, const PassingMessage& message) {
  std::array<unsigned int, kMostReceivers> shown{};
  unsigned int count = 0;
  Receivers receivers(message);
  for (unsigned int to = 0; receivers.next(to); ++count)
    if (count < kMostReceivers) shown[count] = to;
  writer.numbers(common::tap::RECEIVERS, {shown.data(), std::min(count, kMostReceivers)});
  if (count > kMostReceivers) writer.number(common::tap::RECEIVER_COUNT, count);
}

void writeHeaders(ObjectWriter& writer, const PassingMessage& message) {
  const Envelope& e = message.envelope;
  writer.longNumber(common::tap::AT, microsecondsNow());
  writer.number(common::tap::SENDER, message.from);
  writeReceivers(writer, message);
  writer.number(common::tap::LENGTH, static_cast<unsigned int>(e.body.size()));
  if (message.command) writer.number(common::tap::COMMAND, *message.command);
  if (e.isControl) writer.number(common::tap::CONTROL, e.control);
  if (e.isReply()) writer.flag(common::tap::ANSWER);
  if (e.hasRequestId) writer.number(common::tap::NUMBER, e.requestId);
  if (message.age) writer.longNumber(common::tap::AGE, *message.age);
  if (e.status == kl::STATUS_ERROR) writer.number(common::tap::ERROR, e.error);
  if (message.isByLoader) writer.flag(common::tap::BY_LOADER);
}

kl::message::flat_message objectOf(std::span<const unsigned char> bytes) {
  kl::message::flat_message object;
  object.assign(bytes.begin(), bytes.end());
  return object;
}

}  // namespace

void Tap::add(const PassingMessage& message) {
  const auto body = message.envelope.body;
  const std::span<const unsigned char> shown =
      body.first(std::min<std::size_t>(body.size(), filter_.contents()));
  const std::size_t most = kMostHeaderBytes + shown.size();
  if (queue_.size() + most > kMostBytes) {
    ++lost_;
    return;
  }
  if (lost_ != 0) addLost();
  unsigned char* const at = queue_.grow(most);
  ObjectWriter writer(at);
  writeHeaders(writer, message);
  if (!shown.empty()) writer.bytes(common::tap::CONTENTS, shown);
  queue_.dropBack(most - writer.finish());
}

void Tap::addLost() {
  unsigned char* const at = queue_.grow(kMostHeaderBytes);
  ObjectWriter writer(at);
  writer.longNumber(common::tap::AT, microsecondsNow());
  writer.longNumber(common::tap::LOST, std::exchange(lost_, 0));
  queue_.dropBack(kMostHeaderBytes - writer.finish());
}

void Tap::send(Outbox& outbox) {
  while (!isEmpty() && reader_->isConnected() && !reader_->isHeldFor && reader_->waiting() < kMostUnread)
    if (!sendBatch(outbox)) return;
}

// Losses while the queue is full are told behind its messages, as soon as these have been sent.
bool Tap::sendBatch(Outbox& outbox) {
  if (queue_.empty()) addLost();
  Objects objects;
  std::size_t taken = 0;
  for (std::span<const unsigned char> rest = queue_.bytes(); !rest.empty();
       rest = queue_.bytes().subspan(taken)) {
    const std::size_t length = kl::readLe32(rest.data());
    if (!objects.empty() && taken + length > kl::Chunk::kMostBytes) break;
    objects.push_back(objectOf(rest.subspan(kLengthBytes, length)));
    taken += kLengthBytes + length;
  }
  kl::message m;
  m.insert(kl::SYS_CMD, common::tap::CMD_TAP);
  m.insert(kl::SYS_TO, path_);
  m.insert(kl::SYS_FROM, {kl::SERVICE_LOADER});
  m.insert(kl::STD_OBJS, objects);
  if (!outbox.hasRoomFor(*reader_, m.max_length(), Urgency::kOrdinary)) return false;
  if (!outbox.send(*reader_, m, Urgency::kOrdinary)) return false;
  queue_.dropFront(taken);
  return true;
}

}  // namespace loader
