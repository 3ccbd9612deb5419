#pragma once
// tap_filter.h: which of the messages that pass a tap shows.

#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "kl/message.h"
#include "routing/envelope.h"

namespace loader {

// A message that passes, with what only the book of open requests can say of it.
struct PassingMessage {
  explicit PassingMessage(const Envelope& e) : envelope(e) {}

  const Envelope& envelope;
  unsigned int from = 0;
  bool isByLoader = false;  // it is the loader's own, though it may bear another name
  Path path;                // beginning with its receiver; empty where that is said otherwise
  unsigned int receiver = 0;
  // Of a reply these two are its request's.
  std::optional<unsigned int> command;
  std::optional<unsigned long long> age;  // in ms
};

// The receivers of a message, one after the other: the first elements of its paths.  PATH_ALL is one of them.
class Receivers {
 public:
  explicit Receivers(const PassingMessage& message);

  bool next(unsigned int& receiver);

 private:
  enum class Kind { kOne, kMany, kNone };

  Path rest_;
  unsigned int one_;
  Kind kind_;
};

// The conditions of CMD_TAP.  All that are given must hold; the others are not looked at.
//
// Errors:    read() says what is wrong with a request.
// Ownership: a value.
// Threads:   a value.
// Cost:      a look at a number for each thing asked for, and one at each receiver.
class TapFilter {
 public:
  static constexpr unsigned int kMostServices = 64;
  static constexpr unsigned int kMostContents = 60 * 1024;  // of one message, so that it fits into a frame

  // Becomes what the request asks for; an empty text, or what is wrong with it.
  std::string read(const kl::message& request);

  bool matches(const PassingMessage& message) const;

  // How many bytes of a message are shown.
  unsigned int contents() const { return contents_; }

 private:
  bool matchesEnds(const PassingMessage& message) const;
  bool isNamed(unsigned int service) const;

  std::vector<unsigned int> services_;  // either end is one of them; sorted, none: whoever
  std::optional<unsigned int> peer_;    // the other end
  std::optional<unsigned int> command_;
  bool isForErrors_ = false;
  unsigned int slowest_ = 0;  // ms that a reply must have taken
  unsigned int contents_ = 0;
};

}  // namespace loader
