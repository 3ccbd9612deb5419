// A log line beside one bare write of the same bytes to the same socket, and a muted line beside the test of a flag.
//
// The service is a process of its own that reads and forgets.  It keeps up with the writer; the writer looks now and
// then whether it does, on both sides of a pair, so that no write ever finds the socket full.

#include <linux/sockios.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "bench/support/paired.h"
#include "kl/logger.h"
#include "kl/runner.h"
#include "kl/services.h"
#include "kl/utilities.h"

namespace {

constexpr unsigned char kMuteSecondSource[] = {0, 6, 0, 2, 0, 1};
constexpr unsigned kLooksEvery = 64;
constexpr int kMostUnread = 64 * 1024;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

int listenAtLogSocket() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, kl::logSocketPath().c_str(), sizeof address.sun_path - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ::unlink(address.sun_path);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, 1) != 0)
    fail(address.sun_path);
  return fd;
}

[[noreturn]] void serve(int listener) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int fd = ::accept(listener, nullptr, nullptr);
  if (::write(fd, kMuteSecondSource, sizeof kMuteSecondSource) < 0) ::_exit(1);
  static char bytes[1 << 16];
  while (::read(fd, bytes, sizeof bytes) > 0) {
  }
  ::_exit(0);
}

void startService() {
  const int listener = listenAtLogSocket();
  const pid_t pid = ::fork();
  if (pid < 0) fail("fork");
  if (pid == 0) serve(listener);
  ::close(listener);
}

// The socket that the Logger has opened.
int loggerSocket() {
  for (int fd = STDERR_FILENO + 1; fd < 64; ++fd) {
    sockaddr_un peer{};
    socklen_t length = sizeof peer;
    const bool isConnected = ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0;
    if (isConnected && kl::logSocketPath() == peer.sun_path) return fd;
  }
  std::fputs("log_bench: no connection to the log service\n", stderr);
  std::exit(1);
}

// Now and then, waits until the service has read most of what was written, by whichever side.
void keepRoom(int fd) {
  static unsigned writes = 0;
  if (++writes % kLooksEvery != 0) return;
  int unread = 0;
  while (::ioctl(fd, SIOCOUTQ, &unread) == 0 && unread > kMostUnread) {
  }
}

template <class Operation>
bench::Batch writing(int fd, Operation operation) {
  return bench::repeated([fd, operation]() mutable {
    operation();
    keepRoom(fd);
  });
}

std::string recordOf(const std::string& text) {
  const std::size_t length = 4 + text.size();
  std::string record{static_cast<char>(length >> 8), static_cast<char>(length), 0, 1};
  return record + text;
}

void bareWrite(int fd, const std::string& record) {
  if (::write(fd, record.data(), record.size()) != static_cast<ssize_t>(record.size())) fail("write");
}

void addLine(int fd, kl::lstream& stream, const std::string& text) {
  bench::addPair("lstream, " + std::to_string(text.size()) + " characters",
                 writing(fd, [&stream, text] { stream << text << std::endl; }),
                 writing(fd, [fd, record = recordOf(text)] { bareWrite(fd, record); }));
}

void addCall(int fd, const std::string& text) {
  kl::Logger* logger = kl::Logger::getLogger();
  kl::Source* source = logger->registerSource({kl::TOPIC_INFO});
  const auto length = static_cast<unsigned int>(text.size());
  bench::addPair("Logger::log, " + std::to_string(length) + " characters",
                 writing(fd, [logger, source, text, length] { logger->log(source, text.data(), length); }),
                 writing(fd, [fd, record = recordOf(text)] { bareWrite(fd, record); }));
}

void addMuted(kl::lstream& stream) {
  static volatile bool wanted = false;
  bench::addPair("muted line behind isMuted()", bench::repeated([&stream] {
                   __asm__ volatile("" ::: "memory");
                   if (!stream.isMuted()) stream << "nobody sees this" << std::endl;
                 }),
                 bench::repeated([] {
                   if (wanted) std::abort();
                 }));
}

}  // namespace

int main(int argc, char** argv) {
  startService();
  kl::Runner loop;
  kl::lstream info(kl::TOPIC_INFO);
  kl::lstream muted(kl::TOPIC_DEBUG);
  info << "one" << std::flush;
  muted << "two" << std::flush;
  while (!muted.isMuted()) loop.runSocks(kl::getJiffies());
  const int fd = loggerSocket();
  addLine(fd, info, std::string(48, 'x'));
  addLine(fd, info, std::string(200, 'x'));
  addCall(fd, std::string(48, 'x'));
  addMuted(muted);
  return bench::run(argc, argv);
}
