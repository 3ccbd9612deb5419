#pragma once
// tests/support/doubles/loader_double.h: the loader's end of a connection, played by a test.
//
// Everything happens in one thread: what the process is to receive is sent before it looks for it, and what it
// sent is received afterwards.
//
//     LoaderDouble loader;                       // descriptor 3 is now the other end
//     loader.sendReady();
//     kl::Looper looper(kl::Looper::kInherited, 34);
//     EXPECT_EQ(hex(loader.receiveFrame()), "...");

#include <string>
#include <vector>

#include "kl/message.h"
#include "tests/support/builders.h"

namespace kl::test {

class LoaderDouble {
 public:
  // Makes a socket pair and puts the process's end at descriptor 3.
  LoaderDouble();
  // Takes the loader's end of a connection that a process made.
  explicit LoaderDouble(int fd) : fd_(fd) {}
  ~LoaderDouble();
  LoaderDouble(const LoaderDouble&) = delete;
  LoaderDouble& operator=(const LoaderDouble&) = delete;

  void sendBytes(const std::vector<unsigned char>& bytes);
  void send(const message& m);
  // The confirmation of a registration, with whatever other fields it is to have.
  void sendReady(message m = message());

  // The next frame, its length prefix included; a message without fields, and a failed test, when none
  // comes within 10 s.
  std::vector<unsigned char> receiveFrame();
  message receive();

  // Nothing is there to be received, and the connection is open.
  bool isSilent() const;
  // Gives the socket buffers the smallest size, so that a writer soon has to wait.
  void shrinkBuffers();
  // Ends the connection.
  void close();
  int fd() const { return fd_; }

 private:
  int fd_ = -1;
  unsigned long long inherited_ = 0;  // the inode of the end at descriptor 3
};

// A loader that listens where processes look for it.  Needs: a root of the test's own.
class ListeningLoader {
 public:
  ListeningLoader();
  ~ListeningLoader();
  ListeningLoader(const ListeningLoader&) = delete;
  ListeningLoader& operator=(const ListeningLoader&) = delete;

  // The descriptor of the next connection; waits for it.
  int accept();

 private:
  int fd_ = -1;
};

}  // namespace kl::test
