#pragma once
// envelope.h: what the router needs to know of a frame, found without building a message.

#include <span>

#include "kl/conventions.h"
#include "kl/records.h"

namespace loader {

// The longest single path that is carried.
inline constexpr unsigned int kMaxPathLength = 32;
// The longest return path that is taken: with its sender in front it must still do as the path of the reply.
inline constexpr unsigned int kMaxReturnPathLength = kMaxPathLength - 1;

// A path as it stands in a frame: so many little-endian ids.  Borrows the frame's bytes.
class Path {
 public:
  Path() = default;
  explicit Path(const kl::Record& record)
      : at_(record.payload().data()), size_(record.isArray() ? record.count() : 0) {}

  unsigned int size() const { return size_; }
  bool empty() const { return size_ == 0; }
  unsigned int operator[](unsigned int index) const { return kl::readLe32(at_ + std::size_t{4} * index); }

  // The `count` elements from `first` on.  Needs: they are there.
  Path part(unsigned int first, unsigned int count) const {
    Path result;
    result.at_ = at_ + std::size_t{4} * first;
    result.size_ = count;
    return result;
  }
  Path withoutFirst() const { return part(1, size_ - 1); }

  std::span<const unsigned char> bytes() const { return {at_, std::size_t{4} * size_}; }

 private:
  static constexpr unsigned char kNothing[1] = {};

  const unsigned char* at_ = kNothing;
  unsigned int size_ = 0;
};

// One frame, with the fields that routing depends on.
//
// Errors:    readEnvelope() gives what is wrong with a frame.
// Ownership: borrows the frame's bytes.
// Threads:   a value.
// Cost:      one pass over the record headers, no allocation.
struct Envelope {
  std::span<const unsigned char> body;

  // Records that are rewritten on the way; without bytes when absent.
  kl::Record to;
  kl::Record from;
  kl::Record user;
  kl::Record policy;

  unsigned int type = kl::TYPE_REQUEST;
  unsigned int status = kl::STATUS_OK;
  unsigned int command = kl::CMD_NOOP;
  unsigned int error = kl::ERROR_UNKNOWN;  // of an error
  unsigned int requestId = 0;
  unsigned int control = 0;
  unsigned int controlArgument = 0;
  bool hasCommand = false;
  bool hasRequestId = false;
  bool isControl = false;
  bool expectsReply = false;
  bool hasReplyMark = false;  // SYS_REPLYEXP is there, whatever it says

  Path path() const { return Path(to); }
  Path returnPath() const { return from.bytes().empty() ? Path() : Path(from); }

  bool isReply() const { return type == kl::TYPE_REPLY; }
  // A message that only reports an error, like the notice about a broken path.  That of a death is a command.
  bool isErrorNotice() const { return !hasCommand && status == kl::STATUS_ERROR; }
  // A message that a handler would execute as a command.  A foreign SYS_TYPE does not make it harmless.
  bool isCommand() const { return !isReply() && hasCommand; }
  bool isSubscribe() const { return isCommand() && command == kl::CMD_SUBSCRIBE; }
  // A command that a handler may send to its subscribers: nobody could answer it.
  bool mayNotify() const {
    return hasCommand && type == kl::TYPE_REQUEST && !hasRequestId && !hasReplyMark &&
           path()[0] != kl::PATH_ALL;
  }
  // Somebody waits for an answer or could take one.
  bool wantsAnswer() const { return !isReply() && !isErrorNotice() && (expectsReply || isTracked()); }
  // A request whose reply will come by; subscribing is never answered.
  bool isTracked() const {
    return !isReply() && !isErrorNotice() && hasRequestId && command != kl::CMD_SUBSCRIBE &&
           command != kl::CMD_UNSUBSCRIBE;
  }
};

// Reads the envelope of a frame's body.  Null when the frame may be carried, else what makes it garbage.
const char* readEnvelope(std::span<const unsigned char> body, Envelope& envelope);

}  // namespace loader
