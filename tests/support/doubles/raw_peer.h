#pragma once
// raw_peer.h: a process at the loader's socket that speaks in bytes and is bound by no rules.

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kl/message.h"
#include "tests/support/builders.h"

namespace kl::test {

// A connection to a loader.  Every wait has a deadline, and one that is missed gives an empty result: a test that
// expects something else fails and does not hang.
//
//     RawPeer a;
//     ASSERT_TRUE(a.connect());
//     ASSERT_EQ(a.registerAs(34), 34u);
//     a.send(request({24, 0}, CMD_GET, 1));
//     const auto answer = a.receive();
class RawPeer {
 public:
  static constexpr int kDeadlineMs = 5000;

  RawPeer() = default;
  explicit RawPeer(int fd) : fd_(fd) {}
  RawPeer(RawPeer&& other) noexcept;
  RawPeer& operator=(RawPeer&& other) noexcept;
  ~RawPeer() { close(); }

  // One that has connected and registered, with this id or, for 0, with one that the loader picks; the test fails
  // when that fails.
  static RawPeer registered(unsigned int id = 0);

  // Connects to the loader's socket; waits until there is one.
  bool connect(int deadlineMs = kDeadlineMs);
  void close();
  void halfClose();  // says that no more bytes come
  int fd() const { return fd_; }

  // Writes all of it; false when the other side is gone or does not take it in time.
  bool sendBytes(std::span<const unsigned char> bytes);
  bool sendBody(std::span<const unsigned char> body);  // with its length in front
  bool send(const message& m);

  std::optional<std::vector<unsigned char>> receiveBody(int deadlineMs = kDeadlineMs);
  std::optional<message> receive(int deadlineMs = kDeadlineMs);
  // The next message with this command; others are passed over.
  std::optional<message> receiveCommand(unsigned int command, int deadlineMs = kDeadlineMs);
  std::optional<message> receiveReply(unsigned int requestId, int deadlineMs = kDeadlineMs);

  // The other side closes the connection in time; what still comes before is thrown away.
  bool isDisconnected(int deadlineMs = kDeadlineMs);
  // Nothing comes for so long.
  bool isQuiet(int forMs = 100);

  // Sends a registration and waits for its confirmation: the id given, or 0.
  unsigned int registerAs(unsigned int id);
  // Sends something to the service of another peer, which takes it: from now on each can know the other.
  bool meet(unsigned int id, RawPeer& other);
  const message& ready() const { return ready_; }  // the confirmation

 private:
  bool waitFor(short events, int deadlineMs) const;
  bool readSome(int deadlineMs);

  int fd_ = -1;
  std::vector<unsigned char> in_;
  message ready_;
};

}  // namespace kl::test
