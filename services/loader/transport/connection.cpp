// One socket, event by event.  Reading cuts the bytes into frames and hands them to the host one at a time, so a frame
// that closes the connection is the last one; writing sends the whole queue at once and asks poll for room only when
// that was too much.  A turn ends with the frame that spends the last of its work; while the connection waits for the
// next one, its socket counts as readable, so that the loop does not sleep.

#include "transport/connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace loader {
namespace {

// More than a socket buffer holds.  A process that inherited the connection may go on writing.
constexpr int kMostReads = 256;

}  // namespace

Connection::Connection(Sockets& sockets, ConnectionHost& host, ReadArea& area, Turns& turns,
                       Descriptor socket, Origin origin, Patience patience)
    : sockets_(sockets),
      host_(host),
      socket_(std::move(socket)),
      origin_(origin),
      patience_(patience),
      reader_(area),
      turns_(turns),
      place_(turns.nowhere()),
      stallTimer_(sockets.runner(), *this),
      frameTimer_(sockets.runner(), *this) {
  sockets_.add(socket_.get(), this, kl::bind<Connection, &Connection::onEvent>(), POLLIN);
  if (isPending() && patience_.stallTicks > 0) stallTimer_.start(patience_.stallTicks);
}

void Connection::attach(Buffer& out) {
  stallTimer_.cancel();
  out_ = &out;
}

void Connection::serve() {
  takeFirstTurn();
  host_.writeQueues();
}

Work::Units Connection::serveNext(Work::Units units) {
  stopAwaitingTurn();
  if (units <= debt_) {
    debt_ -= units;
    awaitTurn();
    return 0;
  }
  Work& work = turns_.work();
  work.allow(units - debt_);
  spendTurn();
  const Work::Units spent = units - debt_ - work.left();
  debt_ = std::max<Work::Units>(0, -work.left());
  if (debt_ > 0 && isOpen()) awaitTurn();
  host_.writeQueues();
  return spent;
}

void Connection::setQueued(bool isQueued) {
  if (isQueued == isQueued_ || !isOpen()) return;
  isQueued_ = isQueued;
  if (isQueued) sockets_.remove(socket_.get());
  else
    sockets_.add(socket_.get(), this, kl::bind<Connection, &Connection::onEvent>(),
                 isBlocked_ ? POLLIN | POLLOUT : POLLIN);
}

void Connection::onOutput() {
  if (isBlocked_) watchProgress(false);
  else write();
}

// It has no next turn.
void Connection::drain() {
  const Work before = turns_.work();
  turns_.work().allow(Work::kAll);
  if (reader_.hasFrame()) handleKept();
  for (int i = 0; i < kMostReads && isOpen() && readOnce(Turns::kLongRead); ++i) {
  }
  turns_.work() = before;
}

void Connection::close() {
  if (!isOpen()) return;
  stallTimer_.cancel();
  frameTimer_.cancel();
  stopAwaitingTurn();
  if (!isQueued_) sockets_.remove(socket_.get());
  isQueued_ = false;
  socket_.close();
  out_ = nullptr;
}

void Connection::onEvent(int, unsigned int events) {
  if (isPending()) return host_.onPendingReadable();
  if ((events & POLLOUT) != 0) write();
  if ((events & ~static_cast<unsigned int>(POLLOUT)) != 0 && !isWaiting()) takeFirstTurn();
  host_.writeQueues();
}

void Connection::takeFirstTurn() {
  Work& work = turns_.work();
  const Work::Units units = turns_.firstTurn();
  work.allow(units);
  (void)readOnce(turns_.firstRead());
  turns_.addFirst(units - work.left());
  debt_ = std::max<Work::Units>(0, -work.left());
  if (isOpen() && (debt_ > 0 || reader_.hasFrame())) awaitTurn();
}

// Handles what was set aside, then what is read bit by bit, as long as the turn allows.
void Connection::spendTurn() {
  while (isOpen() && !turns_.work().isSpent()) {
    if (reader_.hasFrame()) handleKept();
    else if (!readOnce(Turns::kShortRead)) return;
  }
  if (isOpen()) awaitTurn();
}

void Connection::awaitTurn() {
  if (isWaiting()) return;
  place_ = turns_.add(*this, reader_.hasFrame() ? reader_.keptBytes() : 0);
  sockets_.setReadAhead(socket_.get(), true);
}

void Connection::stopAwaitingTurn() {
  if (!isWaiting()) return;
  turns_.forget(std::exchange(place_, turns_.nowhere()));
  sockets_.setReadAhead(socket_.get(), false);
}

// True when something was read and more may be there.
bool Connection::readOnce(std::size_t most) {
  switch (reader_.readFrom(socket_.get(), most)) {
    case FrameReader::Outcome::kNothing: return false;
    case FrameReader::Outcome::kEnd:
      host_.onConnectionClosed(reader_.isInFrame() ? "ended within a frame" : "");
      return false;
    case FrameReader::Outcome::kBytes: handleFrames(); return true;
  }
  return false;
}

// The frames that were set aside.
void Connection::handleKept() {
  reader_.resume();
  handleFrames();
  if (isOpen() && !reader_.hasFrame()) reader_.trim();
}

void Connection::handleFrames() {
  host_.onBatch();
  Work& work = turns_.work();
  for (std::span<const unsigned char> body; isOpen() && !work.isSpent() && reader_.next(body);) {
    work.spend(Work::kFrame);
    work.spendBytes(body.size());
    if (const char* fault = host_.onFrame(body)) return host_.onConnectionClosed(fault);
    if (work.isSpent() && host_.isFrameUnfinished()) reader_.putBack();
  }
  if (reader_.isBroken()) return host_.onConnectionClosed(whatIsTooLong());
  reader_.keepRest();
  if (reader_.takesTooMuch()) return host_.onConnectionClosed("leaves more unfinished than its user may");
  watchFrame();
}

const char* Connection::whatIsTooLong() const {
  return out_ != nullptr ? "announced a frame of more than 65535 bytes"
                         : "announced a registration of more than 65535 bytes";
}

void Connection::write() {
  const std::span<const unsigned char> bytes = out_->bytes();
  const ssize_t written = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (written > 0) out_->dropFront(static_cast<std::size_t>(written));
  else if (written < 0 && errno != EAGAIN && errno != EINTR) giveUpWriting();
  setBlocked(!out_->empty());
  watchProgress(written > 0);
}

// The process has ended, or reads no more for good.  Its earlier bytes are still read, and then the end is met.
void Connection::giveUpWriting() {
  hasStoppedReading_ = true;
  out_->clear();
  (void)::shutdown(socket_.get(), SHUT_RD);
}

void Connection::setBlocked(bool isBlocked) {
  if (isBlocked == isBlocked_) return;
  isBlocked_ = isBlocked;
  sockets_.change(socket_.get(), isBlocked ? POLLIN | POLLOUT : POLLIN);  // C1
}

// C2
void Connection::watchProgress(bool hasProgress) {
  const bool isAtLimit = isBlocked_ && out_->size() >= patience_.queueLimit && patience_.stallTicks > 0;
  if (hasProgress || !isAtLimit) stallTimer_.cancel();
  if (isAtLimit && !stallTimer_.isRunning()) stallTimer_.start(patience_.stallTicks);
}

// The process may have read, or registered, while the loader itself stood still, so it is tried once before it is
// judged.
void Connection::onStall() {
  const bool hasRegistered = out_ != nullptr;
  const std::size_t before = hasRegistered ? out_->size() : 0;
  if (hasRegistered) write();
  else takeFirstTurn();
  const bool isStalled = isOpen() && (hasRegistered ? out_->size() == before : out_ == nullptr);
  if (isStalled)
    host_.onConnectionClosed(hasRegistered ? "reads nothing while its queue is full" : "does not register");
  host_.writeQueues();
}

// C3.  One timer outlasts many frames, so that a stream of them costs nothing but a look at their number.
void Connection::watchFrame() {
  if (!isOpen() || !reader_.isInFrame() || frameTimer_.isRunning() || patience_.stallTicks == 0) return;
  framesBefore_ = reader_.frames();
  frameTimer_.start(patience_.stallTicks);
}

// The rest may have come while the loader itself stood still, so the socket is read before its process is judged.
void Connection::onFrameStall() {
  const unsigned int before = framesBefore_;
  const auto isStalled = [&] {
    return isOpen() && !isWaiting() && reader_.isInFrame() && reader_.frames() == before;
  };
  if (isStalled()) takeFirstTurn();
  if (isStalled()) host_.onConnectionClosed("left a frame unfinished");
  watchFrame();
  host_.writeQueues();
}

}  // namespace loader
