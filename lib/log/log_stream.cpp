// Log streams: the ways to name their topics.

#include "kl/logger.h"

namespace kl {

// The buffer is made after the stream's base, which therefore learns of it here.
lstream::lstream(unsigned int topic) : std::ostream(nullptr), buffer_(topic) { rdbuf(&buffer_); }

lstream::lstream(std::ostream& echo, unsigned int topic) : lstream(topic) { buffer_.echo_ = echo.rdbuf(); }

lstream::lstream(const unsigned int* topics) : std::ostream(nullptr), buffer_(topics) { rdbuf(&buffer_); }

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
