// Log streams: the ways to name their topics.

#include "base/report.h"
#include "kl/logger.h"

namespace kl {
namespace {

constexpr unsigned int kEndOfTopics = 0;

}  // namespace

// The buffer is made after the stream's base, which therefore learns of it here.
lstream::lstream(unsigned int topic) : std::ostream(nullptr), buffer_(topic) { rdbuf(&buffer_); }

lstream::lstream(std::ostream& echo, unsigned int topic) : lstream(topic) { buffer_.echo_ = echo.rdbuf(); }

lstream::lstream(const unsigned int* topics) : std::ostream(nullptr), buffer_(topics) { rdbuf(&buffer_); }

lstream::lstream(const List& topics, std::ostream* echo) : lstream(*topics.begin()) {
  if (echo != nullptr) buffer_.echo_ = echo->rdbuf();
  for (auto topic = topics.begin() + 1; topic != topics.end() && *topic != 0; ++topic)
    buffer_.addTopic(*topic);
}

lstream::lstream(std::initializer_list<LogTopic> topics) : std::ostream(nullptr), buffer_(&kEndOfTopics) {
  rdbuf(&buffer_);
  for (auto topic = topics.begin(); topic != topics.end(); ++topic) {
    const unsigned int number = topic->number();
    if (number == 0 && topic != topics.begin()) return;
    if (!topic->isTooLarge()) buffer_.addTopic(number);
    else printLine("log topic above 65535 left out");
  }
}

lstream::lstream(std::ostream& echo, std::initializer_list<LogTopic> topics) : lstream(topics) {
  buffer_.echo_ = echo.rdbuf();
}

lstream::lstream(unsigned int topic, unsigned int next, ...) : lstream(topic) {
  if (next == 0) return;
  buffer_.addTopic(next);
  std::va_list rest;
  va_start(rest, next);
  buffer_.addTopics(rest);
  va_end(rest);
}

lstream::lstream(std::ostream& echo, unsigned int topic, unsigned int next, ...) : lstream(echo, topic) {
  if (next == 0) return;
  buffer_.addTopic(next);
  std::va_list rest;
  va_start(rest, next);
  buffer_.addTopics(rest);
  va_end(rest);
}

lstream::~lstream() = default;

}  // namespace kl
