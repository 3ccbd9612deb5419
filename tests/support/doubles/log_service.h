#pragma once
// tests/support/doubles/log_service.h: the other end of the log socket, played by the test.

#include <string>
#include <vector>

namespace kl::test {

// Listens at the log service's socket while it lives.  A client in the test's own thread has written before receive()
// looks; awaits() is for a client that is another process.
class LogService {
 public:
  explicit LogService(int backlog = 4);
  ~LogService();
  LogService(const LogService&) = delete;
  LogService& operator=(const LogService&) = delete;

  // Takes the connection that the client has made; false if it has made none.
  bool accept();
  // The same with the last of the connections that clients have made; the others end.
  bool acceptNewest();
  // The bytes that have come since the last call, as they are or in hexadecimal digits.
  std::vector<unsigned char> receive();
  std::string received();
  // Waits until the text has come from one of its clients, in what it awaited since it began; false when 20 s pass
  // without one more byte.  Takes every connection that comes meanwhile: beside a service that logs, the loader does.
  bool awaits(const std::string& text);
  // True when the client has ended the connection and nothing of it is left to read.
  bool isLeft();
  // Sends the bytes that the hexadecimal digits name.
  void send(const std::string& digits);
  void hangUp();

 private:
  struct Connection {
    int fd;
    std::string awaited;
  };

  // Takes the next connection, beside those that it has.
  bool acceptNext();
  // The one connection where there is no other; -1 where there is none.
  int connection() const { return connections_.empty() ? -1 : connections_.front().fd; }
  // False when nothing comes from anybody in time.
  bool awaitSomething() const;
  // Adds what has come to what was awaited; a connection that has ended has no descriptor any more.
  static void read(Connection& connection);

  int listener_ = -1;
  std::vector<Connection> connections_;
};

}  // namespace kl::test
