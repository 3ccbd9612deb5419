// The kernel usually takes a text at once, and then the connection is closed: its reader finds all of it, and the end,
// whenever he reads.

#include "transport/text_socket.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace loader {

class TextSocket::Reader {
 public:
  Reader(TextSocket& owner, Descriptor socket, Text text)
      : owner_(owner), socket_(std::move(socket)), text_(std::move(text)), patience_(owner.runner_, *this) {}
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  ~Reader() { (void)owner_.runner_.removeSocket(socket_.get()); }

  // False when nothing is left to write, or nobody to read it.
  bool write() {
    while (written_ < text_->size()) {
      const ssize_t sent = ::send(socket_.get(), text_->data() + written_, text_->size() - written_,
                                  MSG_DONTWAIT | MSG_NOSIGNAL);
      if (sent < 0 && errno == EINTR) continue;
      if (sent < 0) return errno == EAGAIN;
      written_ += static_cast<std::size_t>(sent);
    }
    return false;
  }

  void waitForRoom() {
    owner_.runner_.addSocket(socket_.get(), this, kl::bind<Reader, &Reader::onRoom>(), POLLOUT);
    patience_.start(owner_.patienceTicks_);
  }

 private:
  void onRoom(int, unsigned int) {
    if (!write()) end();
  }

  void end() { owner_.forget(*this); }  // deletes it

  TextSocket& owner_;
  Descriptor socket_;
  Text text_;
  std::size_t written_ = 0;
  common::Timer<&Reader::end> patience_;
};

TextSocket::TextSocket(kl::ThinRunner& runner, Log& log, MakeText makeText, unsigned int patienceTicks)
    : runner_(runner),
      makeText_(std::move(makeText)),
      patienceTicks_(patienceTicks),
      listener_(runner, log, [this](Descriptor socket, common::Peer) { serve(std::move(socket)); }) {}

TextSocket::~TextSocket() = default;

std::string TextSocket::open(const std::string& path, const common::SocketAccess& access) {
  return listener_.openAt(path, access);
}

void TextSocket::close() {
  listener_.close();
  readers_.clear();
}

// X2, X3
void TextSocket::serve(Descriptor socket) {
  if (!text_) text_ = std::make_shared<const std::string>(makeText_());
  readers_.emplace_back(*this, std::move(socket), text_);
  if (!readers_.back().write()) return readers_.pop_back();
  readers_.back().waitForRoom();
  if (readers_.size() > kMostReaders) readers_.pop_front();
}

void TextSocket::forget(const Reader& reader) {
  readers_.erase(
      std::find_if(readers_.begin(), readers_.end(), [&](const Reader& one) { return &one == &reader; }));
}

}  // namespace loader
