// The limit: the same roles on bare sockets, moving opaque frames.  A waiting peer polls; each frame and
// hop then costs one read and one write.  Frames of one direction have one size.
//
// usage: raw_peers client CONNECTION ALL-ARRIVED REQUEST-BYTES REPLY-BYTES
//        raw_peers relay REQUEST-BYTES REPLY-BYTES CLIENT PEER...
//        raw_peers echo CONNECTION REQUEST-BYTES REPLY-BYTES
//        raw_peers member CONNECTION REQUEST-BYTES MEMORY PIPE EXPECTED
//        raw_peers greeter LISTENING             answers one byte on each connection
//        raw_peers connect PATH                  connects, exchanges a byte, disconnects

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "bench/router/commands.h"
#include "bench/router/members.h"

namespace {

using bench::Answer;
using bench::Command;
using bench::Task;

unsigned char frame[1 << 16];

std::size_t sizeOf(const char* text) { return static_cast<std::size_t>(std::atol(text)); }

void waitFor(int fd) {
  pollfd watched{fd, POLLIN, 0};
  ::poll(&watched, 1, -1);
}

// One read as a rule; what a large frame lacks is read after it.  False at the end of the connection.
bool readFrame(int fd, std::size_t bytes) {
  for (std::size_t done = 0; done < bytes;) {
    const ssize_t got = ::read(fd, frame + done, bytes - done);
    if (got <= 0) return false;
    done += static_cast<std::size_t>(got);
  }
  return true;
}

void writeFrame(int fd, std::size_t bytes) {
  for (std::size_t done = 0; done < bytes;) {
    const ssize_t put = ::write(fd, frame + done, bytes - done);
    if (put <= 0) std::_Exit(0);
    done += static_cast<std::size_t>(put);
  }
}

void receive(int fd, std::size_t bytes) {
  waitFor(fd);
  if (!readFrame(fd, bytes)) std::_Exit(0);
}

// --- the roles

class Client {
 public:
  Client(int connection, int allArrived, std::size_t requestBytes, std::size_t replyBytes)
      : connection_(connection),
        allArrived_(allArrived),
        requestBytes_(requestBytes),
        replyBytes_(replyBytes) {}

  void carryOut(const Command& command) {
    if (command.task == Task::kFanOut || command.task == Task::kFanOutToAll) return fanOuts(command.times);
    const unsigned int window = command.task == Task::kOutstanding ? command.window : 1;
    unsigned int asked = 0;
    for (; asked < window; ++asked) writeFrame(connection_, requestBytes_);
    for (unsigned int answered = 0; answered < command.times; ++answered) {
      receive(connection_, replyBytes_);
      if (asked++ < command.times) writeFrame(connection_, requestBytes_);
    }
  }

 private:
  void fanOuts(unsigned int times) {
    for (unsigned int i = 0; i < times; ++i) {
      writeFrame(connection_, requestBytes_);
      char last = 0;
      if (::read(allArrived_, &last, 1) != 1) std::_Exit(0);
    }
  }

  int connection_;
  int allArrived_;
  std::size_t requestBytes_, replyBytes_;
};

// Frames of the client go to every peer, those of a peer to the client.
void relay(std::size_t requestBytes, std::size_t replyBytes, const std::vector<int>& connections) {
  std::vector<pollfd> watched;
  for (const int fd : connections) watched.push_back({fd, POLLIN, 0});
  while (::poll(watched.data(), watched.size(), -1) > 0) {
    for (std::size_t i = 0; i < watched.size(); ++i) {
      if (watched[i].revents == 0) continue;
      if (!readFrame(watched[i].fd, i == 0 ? requestBytes : replyBytes)) return;
      if (i > 0) writeFrame(watched[0].fd, replyBytes);
      else
        for (std::size_t peer = 1; peer < watched.size(); ++peer) writeFrame(watched[peer].fd, requestBytes);
    }
  }
}

void echo(int connection, std::size_t requestBytes, std::size_t replyBytes) {
  for (;;) {
    receive(connection, requestBytes);
    writeFrame(connection, replyBytes);
  }
}

void countArrivals(int connection, std::size_t requestBytes, bench::Arrivals arrivals) {
  for (;;) {
    receive(connection, requestBytes);
    arrivals.arrived();
  }
}

void greet(int listening) {
  for (;;) {
    waitFor(listening);
    const int connection = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    receive(connection, 1);
    writeFrame(connection, 1);
    ::close(connection);
  }
}

void connectOnce(const char* path) {
  const int connection = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
  if (::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) std::_Exit(1);
  writeFrame(connection, 1);
  receive(connection, 1);
  ::close(connection);
}

template <class CarryOut>
void serveCommands(CarryOut carryOut) {
  for (Command command{}; bench::readWhole(STDIN_FILENO, command);) {
    const bench::Stopwatch watch;
    carryOut(command);
    bench::writeWhole(STDOUT_FILENO, Answer{watch.nanoseconds(), 0, 0});
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view role = argc > 2 ? argv[1] : "";
  if (role == "client" && argc == 6) {
    Client client(std::atoi(argv[2]), std::atoi(argv[3]), sizeOf(argv[4]), sizeOf(argv[5]));
    serveCommands([&client](const Command& command) { client.carryOut(command); });
  } else if (role == "relay" && argc > 5) {
    std::vector<int> connections;
    for (int i = 4; i < argc; ++i) connections.push_back(std::atoi(argv[i]));
    relay(sizeOf(argv[2]), sizeOf(argv[3]), connections);
  } else if (role == "echo" && argc == 5) {
    echo(std::atoi(argv[2]), sizeOf(argv[3]), sizeOf(argv[4]));
  } else if (role == "member" && argc == 7) {
    const auto expected = static_cast<unsigned int>(std::atoi(argv[6]));
    countArrivals(std::atoi(argv[2]), sizeOf(argv[3]), {std::atoi(argv[4]), std::atoi(argv[5]), expected});
  } else if (role == "greeter" && argc == 3) {
    greet(std::atoi(argv[2]));
  } else if (role == "connect" && argc == 3) {
    serveCommands([argv](const Command& command) {
      for (unsigned int i = 0; i < command.times; ++i) connectOnce(argv[2]);
    });
  } else {
    std::fprintf(stderr, "raw_peers: started by router_bench\n");
    return 2;
  }
}
