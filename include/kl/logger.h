#pragma once
// kl/logger.h: log lines of a process: the streams that they are written to, and the connection to the log
// service.

#include <algorithm>
#include <concepts>
#include <cstdarg>
#include <initializer_list>
#include <map>
#include <ostream>
#include <streambuf>
#include <vector>

#include "kl/export.h"

namespace kl {

// One list of topics under which a process logs.  The log service knows it by its number.
struct Source {
  const std::vector<unsigned short>* topics;
  unsigned int id;  // 1 for the first of the process, and so on; on the socket its low 16 bits
  bool muted;       // the log service does not want its lines
  bool registered;  // the log service knows it on this connection
};

// The process's connection to the log service.  Services write to an lstream (below), which asks for it:
//
//     kl::Logger* logger = kl::Logger::getLogger();
//     kl::Source* source = logger->registerSource({kl::TOPIC_ERROR, 300});
//     logger->log(source, "no link", 7);
//
// It connects when it is made, and again with any line that finds it without a connection.  A line that cannot
// be sent is lost: the service goes on.  A reader that is slow is waited for three times 100 ms; after that the
// line is lost as well.
//
// Errors:    none reaches the caller.  Each is one line on standard output, and nothing is thrown.
// Ownership: owns its sources, whose addresses never change, and its socket.  At most one further descriptor is
//            held while the service cannot be reached.  A resource, so it is not copied.
// Threads:   belongs to the thread of the loop; nothing here is async-signal-safe.
// Cost:      a line is one write(2) and no allocation; a muted one is a test of a flag.
class KL_API Logger {
 public:
  // The Logger of this process, made and connected by the first call and never destroyed.
  static Logger* getLogger();

  // Ignores SIGPIPE, for the whole process, and connects.
  Logger();
  ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // The source with exactly this list of topics.  A new one is registered with the service at once.  A list of more
  // than 32763 topics does not fit into a record: its source is never registered and its lines are lost.
  Source* registerSource(const std::vector<unsigned short>& topics);

  // Sends one line of `length` bytes, without a newline at its end.  A text of more than 65531 bytes goes out as
  // several lines.
  void log(Source* source, const char* text, unsigned int length);

  // The steps of the operations above.

  // Connects to the service and has the process's runner watch the socket.  Every source is to be registered
  // again then.  Needs: no connection stands.
  void connectToLog();

  // Ends the connection, and with it every registration and every muting.
  void closeConnection();

  // Registers a source with the service.  True, also in source->registered, if the record went out whole.
  bool sendRegistration(Source* source);

  // Sends one whole record, after connecting if need be; true when writeRaw returns `length` or more.
  bool writeMsg(const void* record, unsigned int length, bool isRegistration);

  // Writes bytes to the socket in up to four attempts with pauses of 100 ms between them.  The number of bytes
  // that the last of them wrote if nothing is left then; otherwise less than `length`.  Needs: a connection.
  unsigned int writeRaw(const void* bytes, unsigned int length);

  // The callback of the socket: reads which sources the service mutes.
  void onSocket(int fd, unsigned int events);

 private:
  struct Parts;

  // Number by number.  The operator of g++ 12's vectors compares bytes on big-endian processors, and half of them
  // only, so that lists would be taken for each other.
  struct TopicOrder {
    bool operator()(const std::vector<unsigned short>& a, const std::vector<unsigned short>& b) const {
      return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end());
    }
  };

  void logRecord(Source& source, const char* text, unsigned int length);
  bool sendParts(Parts parts);
  unsigned int writeParts(Parts parts);
  int takeSocket();
  void obeyMuteRecords(const unsigned char* bytes, unsigned int count);

  std::map<std::vector<unsigned short>, Source, TopicOrder> sources_;
  std::vector<Source*> table_;  // the source with number n stands at n - 1
  int socket_ = -1;             // -1 while there is no connection
  int spareSocket_ = -1;        // one that could not be connected; the next attempt uses it
};

// The buffer of an lstream: collects text and hands it to the process's Logger whenever it is flushed, at the
// latest with the 256th character.
//
// Errors:    none; flushing always succeeds, whatever becomes of the line.
// Ownership: borrows the echo for its life.
// Threads:   belongs to the thread of the loop.
// Cost:      no allocation; making one costs no I/O, because its first flush finds the Logger.
class KL_API lstreambuf : public std::streambuf {
 public:
  // The topics: the first one, even when it is 0, and the unsigned ints of `rest` up to a 0.
  lstreambuf(unsigned int topic, std::va_list rest);
  // The topics: those before the first 0 of the array.
  explicit lstreambuf(const unsigned int* topics);
  lstreambuf(const lstreambuf&) = delete;
  lstreambuf& operator=(const lstreambuf&) = delete;
  ~lstreambuf() override;  // flushes

  int overflow(int c) override;
  int sync() override;

  // Sends what is collected, without one newline at its end.  Always true.
  bool flushBuffer();

 private:
  friend class lstream;

  explicit lstreambuf(unsigned int topic);
  void addTopic(unsigned int topic);
  void addTopics(std::va_list rest);
  void emptyPutArea();
  void copyToEcho(unsigned int count);

  static constexpr std::size_t kTextBytes = 256;

  char text_[kTextBytes];               // the put area leaves one out: overflow() always finds room
  std::vector<unsigned short> topics_;  // the low 16 bits of what was given
  Logger* logger_ = nullptr;            // null until the first flush, like the source
  Source* source_ = nullptr;
  std::streambuf* echo_ = nullptr;
};

namespace detail {

// The compiler says what stands in the brackets where it optimises and sees that a call is reached.
[[gnu::noinline, gnu::warning("the topics of this lstream end without a 0")]] inline void warnOfMissingEnd() {
  asm volatile("");
}
[[gnu::error("a topic is at most 65535")]] void refuseTopic();

}  // namespace detail

// A topic in a list in braces, 0 to 65535.  A constant outside that does not compile where the compiler optimises;
// any other number outside is left out, with a line on standard output.
class LogTopic {
 public:
  template <class T>
  requires(std::convertible_to<T, unsigned int>) constexpr LogTopic(T topic) {
    const auto given = static_cast<unsigned long long>(topic);
    if (__builtin_constant_p(given) && given > 0xFFFF) detail::refuseTopic();
    if (given <= 0xFFFF) number_ = static_cast<unsigned int>(given);
  }
  constexpr bool isTooLarge() const { return number_ == kTooLarge; }
  constexpr unsigned int number() const { return number_; }  // needs: not too large

 private:
  static constexpr unsigned int kTooLarge = 0x10000;

  unsigned int number_ = kTooLarge;
};

// A stream whose text goes to the log service, one line for each flush:
//
//     kl::lstream info({kl::TOPIC_INFO, 300});           // a list of topics
//     kl::lstream old(kl::TOPIC_INFO, 300, 0);           // the same: topics up to the closing 0
//     kl::lstream errors(std::cerr, kl::TOPIC_ERROR);    // and a copy to the standard error stream
//     info << "link " << name << " is up" << std::endl;
//     if (!info.isMuted()) info << table() << std::endl;
//
// A line ends where the stream is flushed (std::endl, std::flush, its destruction) and is split when it is longer
// than 256 characters.  A newline alone sends nothing and becomes part of the line; one at its end is left out.
//
// Errors:    none; see Logger.
// Ownership: borrows the echo for its life: it must outlive the stream.
// Threads:   belongs to the thread of the loop.
// Cost:      as Logger's; the text is kept inside.  isMuted() is three loads.
class KL_API lstream : public std::ostream {
 public:
  // One topic.
  explicit lstream(unsigned int topic);
  explicit lstream(int topic)
      : lstream(static_cast<unsigned int>(topic)) {}  // so that a literal 0 is a topic
  lstream(std::ostream& echo, unsigned int topic);

  // Several topics in braces.  The first one may be 0; a later 0 ends the list and may be left out.
  explicit lstream(std::initializer_list<LogTopic> topics);
  lstream(std::ostream& echo, std::initializer_list<LogTopic> topics);

#ifdef KL_KEPT_SYMBOLS
  // Programs of earlier builds call these.
  lstream(unsigned int topic, unsigned int next, ...);
  lstream(std::ostream& echo, unsigned int topic, unsigned int next, ...);
#else
  // Several topics closed by a 0, of which the low 16 bits count.  The first one may be 0.  An optimising
  // compiler warns where it sees that the last one is another number; such a list ends with it.
  template <class Topic, class... Rest>
  requires(std::convertible_to<Topic, unsigned int> && sizeof...(Rest) > 0 &&
           (std::convertible_to<Rest, unsigned int> && ...))
      [[gnu::always_inline]] lstream(Topic topic, Rest... rest)
      : lstream(listOf({static_cast<unsigned int>(topic), static_cast<unsigned int>(rest)...}), nullptr) {
    warnUnlessClosed(rest...);
  }
  template <class Topic, class... Rest>
  requires(std::convertible_to<Topic, unsigned int> && sizeof...(Rest) > 0 &&
           (std::convertible_to<Rest, unsigned int> && ...))
      [[gnu::always_inline]] lstream(std::ostream& echo, Topic topic, Rest... rest)
      : lstream(listOf({static_cast<unsigned int>(topic), static_cast<unsigned int>(rest)...}), &echo) {
    warnUnlessClosed(rest...);
  }
#endif

  // The topics of an array that a 0 closes; its first 0, wherever it stands.
  explicit lstream(const unsigned int* topics);

  ~lstream() override;  // flushes

  // Nobody would see a line: the log service has muted these topics and there is no echo.
  bool isMuted() const {
    const Source* source = buffer_.source_;
    return source != nullptr && source->muted && buffer_.echo_ == nullptr;
  }

 private:
  using List = std::initializer_list<unsigned int>;

  lstream(const List& topics, std::ostream* echo);

  static const List& listOf(const List& topics) { return topics; }

  template <class... Rest>
  [[gnu::always_inline]] static void warnUnlessClosed(Rest... rest) {
    unsigned int last = 0;
    ((last = static_cast<unsigned int>(rest)), ...);
    if (__builtin_constant_p(last) && last != 0) detail::warnOfMissingEnd();
  }

  lstreambuf buffer_;
};

}  // namespace kl
