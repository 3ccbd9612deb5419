// Processes of one user flood the log service, and come again whenever it has had enough of them.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "kl/utilities.h"
#include "tests/attack/client.h"
#include "tests/attack/scenarios.h"
#include "tests/attack/siege.h"

namespace attack {
namespace {

constexpr const char* kLogdConfiguration = "/kelo/kl-logd.toml";
constexpr const char* kWord = "honest line ";
constexpr unsigned int kHonestLines = 200;
constexpr unsigned int kLinesOfAConnection = 400;
constexpr std::size_t kLineBytes = 200;
constexpr int kBetweenLinesMs = 2;

using Bytes = std::vector<unsigned char>;

void addField(Bytes& bytes, std::size_t value) {
  bytes.push_back(static_cast<unsigned char>(value >> 8));
  bytes.push_back(static_cast<unsigned char>(value));
}

Bytes registration() {
  Bytes bytes;
  for (const std::size_t field : {10u, 0u, 0u, 1u, kl::TOPIC_INFO}) addField(bytes, field);
  return bytes;
}

void addLine(Bytes& bytes, const std::string& text) {
  addField(bytes, 4 + text.size());
  addField(bytes, 1);
  bytes.insert(bytes.end(), text.begin(), text.end());
}

// A connection to the log service; -1 when there is none.
int connectToLog() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = kl::logSocketPath();
  std::memcpy(address.sun_path, path.c_str(), path.size());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  ::close(fd);
  return -1;
}

bool sendWhole(int fd, const Bytes& bytes) {
  for (std::size_t at = 0; at < bytes.size();) {
    const ssize_t n = ::send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
    if (n <= 0) return false;
    at += static_cast<std::size_t>(n);
  }
  return true;
}

[[noreturn]] void flood(Deeds& deeds) {
  Bytes bytes = registration();
  for (unsigned int n = 0; n < kLinesOfAConnection; ++n) addLine(bytes, std::string(kLineBytes, 'x'));
  ++deeds.inPlace;
  for (;;) {
    const int fd = connectToLog();
    if (fd < 0) {
      ++deeds.refused;
      (void)::poll(nullptr, 0, 1);
      continue;
    }
    if (sendWhole(fd, bytes)) deeds.done += kLinesOfAConnection;
    else ++deeds.refused;
    ::close(fd);
  }
}

// Logs for root meanwhile, at an even pace.
unsigned int logHonestly(int fd, unsigned int first, unsigned int count) {
  unsigned int sent = 0;
  for (unsigned int n = 0; n < count; ++n) {
    Bytes line;
    addLine(line, kWord + std::to_string(first + n) + ".");
    sent += sendWhole(fd, line) ? 1 : 0;
    (void)::poll(nullptr, 0, kBetweenLinesMs);
  }
  return sent;
}

// The loader's own connection is one of its descriptors from then on.
void awaitLoadersLines(Client& client) {
  kl::message m;
  m.insert(kl::STD_GETALLID, kl::BADID);
  m.insert(kl::LOG_PROCESS, "kl-loader");
  while (client.ask({kl::SERVICE_LOG}, kl::CMD_GETALL, m).get(kl::STD_OBJS, {}).empty()) {
  }
}

// How many of root's lines the log service still has.
std::size_t honestLinesKept(Client& client) {
  std::set<std::string> met;
  for (unsigned int next = 0; next != kl::BADID;) {
    kl::message m;
    m.insert(kl::STD_GETALLID, next == 0 ? kl::BADID : next);
    m.insert(kl::LOG_CONTAINS, kWord);
    const kl::message reply = client.ask({kl::SERVICE_LOG}, kl::CMD_GETALL, m);
    for (const kl::message line : reply.get(kl::STD_OBJS, {})) met.insert(line.get(kl::LOG_TEXT, ""));
    next = reply.get(kl::STD_GETALLID, kl::BADID);
  }
  return met.size();
}

std::string loaderWithLog() {
  return std::string("[[service]]\nname = \"log\"\ncommand = [\"") + KL_BIN_DIR +
         "/kl-logd\", \"--config\", \"" + kLogdConfiguration + "\"]\n";
}

}  // namespace

Report logFlood(Pace pace, unsigned int processes) {
  std::ofstream(kLogdConfiguration) << "[log]\nmemory = 1048576\n";
  Siege siege("A flood of lines from " + std::to_string(processes) + " processes", pace, 0, loaderWithLog());
  Client client;
  awaitLoadersLines(client);
  const int fd = connectToLog();
  unsigned int sent = fd >= 0 && sendWhole(fd, registration()) ? logHonestly(fd, 0, kHonestLines / 2) : 0;
  std::size_t kept = 0;
  Report report = siege.run(
      processes, [](unsigned int, Deeds& deeds) { flood(deeds); },
      [&](Report&) {
        sent += logHonestly(fd, kHonestLines / 2, kHonestLines / 2);
        (void)::poll(nullptr, 0, pace.attackMs);
        kept = honestLinesKept(client);
      });
  ::close(fd);
  report.figure("lines of root", sent);
  report.figure("  kept", kept);
  report.promise(sent == kHonestLines, "root could not log");
  report.promise(kept == kHonestLines, "lines of root were pushed out");
  return report;
}

}  // namespace attack
