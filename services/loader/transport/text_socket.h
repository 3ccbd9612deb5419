#pragma once
// text_socket.h: a socket that tells whoever connects how things stand.

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>

#include "kl/runner.h"
#include "services/common/timer.h"
#include "transport/listener.h"

namespace loader {

// A socket at which whoever connects gets a text and the end of the stream.  Nothing is read there.
//
//     TextSocket metrics(runner, log, [] { return describeAll(); });
//     if (const std::string problem = metrics.open(path, {0660, group}); !problem.empty()) ...
//
// X1  nothing waits for a reader: what the kernel has no room for is written when it has, for `patienceTicks`
// X2  at most kMostReaders have a text that is not written; one more takes the place of the oldest
// X3  however many connect in a pass, the text is made once
//
// Errors:    open() gives the reason as a text.  A reader that is cut off finds the end before that of the text.
// Ownership: owns the socket, its file and the connections.
// Threads:   belongs to one thread.
// Cost:      three system calls for each connection, and the text.
class TextSocket {
 public:
  static constexpr std::size_t kMostReaders = 8;
  static constexpr unsigned int kPatienceTicks = 200;

  using MakeText = std::function<std::string()>;

  TextSocket(kl::ThinRunner& runner, Log& log, MakeText makeText,
             unsigned int patienceTicks = kPatienceTicks);
  TextSocket(const TextSocket&) = delete;
  TextSocket& operator=(const TextSocket&) = delete;
  ~TextSocket();

  // Opens the socket; an empty text, or what went wrong.  Needs: the folder exists, the socket is not open.
  std::string open(const std::string& path, const common::SocketAccess& access);
  void close();
  bool isOpen() const { return listener_.isOpen(); }

  // A text is made anew for the next who connects.
  void onPassOver() { text_.reset(); }

  std::size_t readers() const { return readers_.size(); }

 private:
  using Text = std::shared_ptr<const std::string>;

  // A connection whose text the kernel has not taken as a whole.
  class Reader;

  void serve(Descriptor socket);
  void forget(const Reader& reader);

  kl::ThinRunner& runner_;
  const MakeText makeText_;
  const unsigned int patienceTicks_;
  Text text_;                  // of this pass; none before somebody connects
  std::list<Reader> readers_;  // the oldest first
  Listener listener_;
};

}  // namespace loader
