// The buffer of a log stream.
//
// The put area is one character shorter than the buffer, so that overflow() always has room for the character that
// it is called with: a line of 256 characters goes out with the 256th.

#include "kl/logger.h"

namespace kl {

[[gnu::cold]] lstreambuf::lstreambuf(unsigned int topic) {
  addTopic(topic);
  emptyPutArea();
}

[[gnu::cold]] lstreambuf::lstreambuf(unsigned int topic, std::va_list rest) : lstreambuf(topic) {
  addTopics(rest);
}

// Kept on purpose: here a 0 in front ends the list, in a list of arguments it is a topic.
// Held by LogStream.AZeroInFrontIsATopicInAListAndTheEndOfAnArray.
[[gnu::cold]] lstreambuf::lstreambuf(const unsigned int* topics) {
  for (; *topics != 0; ++topics) addTopic(*topics);
  emptyPutArea();
}

lstreambuf::~lstreambuf() { lstreambuf::sync(); }

int lstreambuf::overflow(int c) {
  if (c == traits_type::eof()) return c;
  *pptr() = traits_type::to_char_type(c);
  pbump(1);
  return flushBuffer() ? c : -1;
}

int lstreambuf::sync() { return flushBuffer() ? 0 : -1; }

[[gnu::noinline]] bool lstreambuf::flushBuffer() {
  auto count = static_cast<unsigned int>(pptr() - pbase());
  if (count == 0) return true;
  if (logger_ == nullptr) {
    logger_ = Logger::getLogger();
    source_ = logger_->registerSource(topics_);
  }
  if (text_[count - 1] == '\n') --count;
  logger_->log(source_, text_, count);
  if (echo_ != nullptr) copyToEcho(count);
  emptyPutArea();
  return true;
}

[[gnu::cold]] void lstreambuf::copyToEcho(unsigned int count) {
  echo_->sputn(text_, count);
  echo_->sputc('\n');
  echo_->pubsync();
}

void lstreambuf::emptyPutArea() { setp(text_, text_ + kTextBytes - 1); }

[[gnu::cold]] void lstreambuf::addTopic(unsigned int topic) {
  topics_.push_back(static_cast<unsigned short>(topic));
}

[[gnu::cold]] void lstreambuf::addTopics(std::va_list rest) {
  while (const unsigned int topic = va_arg(rest, unsigned int)) addTopic(topic);
}

}  // namespace kl
