// The log service while the system refuses: it goes on, every line of a client that keeps its connection is in memory and
// with whoever follows, and in its file unless a line says that the file cannot be written.  Only the loader's
// connection ends it.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>

#include "kl/bind.h"
#include "kl/services.h"
#include "kl/utilities.h"
#include "services/logd/asking/log_service.h"
#include "tests/services/logd/fixture.h"
#include "tests/support/calls/faults.h"
#include "tests/support/doubles/loader_double.h"
#include "tests/support/hex.h"

namespace logd::test {
namespace {

using kl::test::exposed;
using kl::test::FaultRun;
using kl::test::spared;

constexpr char kFile[] = "/kelo/faults.log";
constexpr char kSyslog[] = "/kelo/faults.syslog";
constexpr unsigned int kClients = 2;
constexpr unsigned int kLines = 4;  // all together fewer than a datagram socket takes unread
constexpr unsigned int kHaste = 10;
constexpr unsigned int kMostLooks = 3000;
constexpr unsigned int kLooksBetweenSignals = 30;
constexpr unsigned int kAsker = 9;
constexpr char kLast[] =
    "the last";  // written before the service ends; nobody but the files is told any more

BookRules rules() {
  BookRules result;
  result.syslog = kSyslog;
  FileRule rule;
  rule.path = kFile;
  rule.mostBytes = 300;  // several files for what is written
  rule.count = 6;
  rule.sync = kl::LOG_SYNC_LINE;
  result.files.push_back(rule);
  return result;
}

int socketAt(int type, const std::string& path, int (*use)(int, const sockaddr*, socklen_t)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int fd = ::socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  EXPECT_EQ(use(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0) << path;
  return fd;
}

// A process that writes lines under two sources, the second of which is going to be muted.
class Writer {
 public:
  Writer() : socket_(socketAt(SOCK_STREAM, kl::logSocketPath(), ::connect)) {
    send(registration(1, {7}) + registration(2, {kl::TOPIC_DEBUG}));
  }

  void write(const std::string& text) {
    send(textRecord(1, text));
    texts_.push_back(text);
  }

  bool isConnected() {
    unsigned char bytes[64];
    for (ssize_t n; isConnected_ && (n = ::recv(socket_.get(), bytes, sizeof bytes, 0)) != -1;) {
      heard_.insert(heard_.end(), bytes, bytes + n);
      isConnected_ = n > 0;
    }
    return isConnected_;
  }
  const std::vector<std::string>& texts() const { return texts_; }
  std::string heard() const { return kl::test::hex(heard_); }

 private:
  void send(const Bytes& bytes) { (void)::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }

  common::Descriptor socket_;
  bool isConnected_ = true;
  std::vector<std::string> texts_;
  std::vector<unsigned char> heard_;
};

// The lines that a follower of the log has been told, and whether the order to mute was answered.
struct Follower {
  void order(kl::test::LoaderDouble& loader) {
    kl::message m;
    m.insert(kl::SYS_TO, std::vector<unsigned int>());
    m.insert(kl::SYS_FROM, {kAsker});
    m.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
    loader.send(m);
    m.insert(kl::SYS_TO, {kl::LOG_RULES});
    m.insert(kl::SYS_CMD, kl::CMD_SETOBJ);
    m.insert(kl::SYS_REPLYEXP, true);
    m.insert(kl::STD_ID, kl::TOPIC_DEBUG);
    m.insert(kl::LOG_MUTED, true);
    kl::setRequestID(m, 1);
    loader.send(m);
  }

  void listen(kl::test::LoaderDouble& loader) {
    while (!loader.isSilent()) {
      const kl::message m = loader.receive();
      if (kl::isReply(m)) isAnswered = !kl::isError(m);
      for (const kl::message object : m.get(kl::STD_OBJS, {})) texts += object.get(kl::LOG_TEXT, "") + "\n";
    }
  }

  std::string texts;
  bool isAnswered = false;
};

std::string contentOfAllFiles() {
  std::string content;
  for (const auto& entry : std::filesystem::directory_iterator("/kelo"))
    if (entry.path().filename().string().starts_with("faults.log")) content += contentOf(entry.path());
  return content;
}

std::string contentOfRing(const Ring& ring) {
  std::string content;
  for (auto n = ring.begin(); n != ring.end(); ++n) content += ring[n].text + "\n";
  return content;
}

bool has(const std::string& all, const std::string& text) { return all.find(text) != std::string::npos; }

// The service and everybody around it, in one process: the others act between its passes.
class Stage {
 public:
  Stage() : log_(socketAt(SOCK_DGRAM, kSyslog, ::bind)) { loader_.sendReady(); }

  void play() {
    std::string problem;
    exposed([&] { problem = listener_.open(); });
    if (!problem.empty()) return void(std::printf("cannot run"));
    exposed([&] {
      book_ = std::make_unique<LogBook>(rules_);
      service_ = std::make_unique<LogService>(limits_, *book_, listener_, users_);
    });
    begin();
    exposed([&] { service_->run(); });
    for (const int sig : {SIGHUP, SIGTERM, SIGINT})
      (void)service_->removeSighandler(sig, true);  // and their pipe
    judge();
    exposed([&] {
      service_.reset();
      book_.reset();
      listener_.close();
    });
    writers_.clear();
  }

 private:
  void begin() {
    for (unsigned int i = 0; i < kClients; ++i) writers_.push_back(std::make_unique<Writer>());
    follower_.order(loader_);
    service_->addTimer(this, kl::bind<Stage, &Stage::look>(), 1);
  }

  static std::string textOf(unsigned int client, unsigned int line) {
    return std::to_string(client) + " says " + std::to_string(line) + std::string(60, 'x');
  }

  // Writes once the service is followed, and tells it to end when everything has arrived, until it does: the first
  // signal may be the one that is lost.
  void look() {
    spared([this] {
      service_->addTimer(this, kl::bind<Stage, &Stage::look>(), 1);
      follower_.listen(loader_);
      readLog();
      if (++looks_ > kMostLooks) return service_->shutdown();
      if (signalledAt_ > 0 && signalledAt_ + kLooksBetweenSignals <= looks_) tellToEnd();
      if (!follower_.isAnswered || signalledAt_ > 0 || !missing().empty()) return;
      if (hasWritten_) return writeLast(), tellToEnd();
      hasWritten_ = true;
      for (unsigned int line = 0; line < kLines; ++line)
        for (unsigned int i = 0; i < kClients; ++i) writers_[i]->write(textOf(i, line));
    });
  }

  void writeLast() {
    for (const auto& writer : writers_) writer->write(kLast);
  }

  void tellToEnd() {
    signalledAt_ = looks_;
    ::raise(SIGTERM);
  }

  // Reads what the machine's own log got.
  void readLog() {
    char text[1000];
    for (ssize_t n; (n = ::recv(log_.get(), text, sizeof text, 0)) > 0;)
      exported_.append(text, static_cast<std::size_t>(n)) += '\n';
  }

  // The lines that have not come where they should be by now.
  std::string missing() {
    const std::string ring = contentOfRing(book_->ring());
    const std::string files = contentOfAllFiles();
    std::string list;
    for (const auto& writer : writers_) {
      if (!writer->isConnected()) continue;
      if (writer->heard() != kMuted) list += "the mute record\n";
      for (const std::string& text : writer->texts()) list += missing(text, ring, files);
    }
    return list;
  }

  std::string missing(const std::string& text, const std::string& ring, const std::string& files) const {
    std::string list;
    if (!has(ring, text)) list += text + " is not in memory\n";
    if (!has(files, text) && !has(ring, "lines are not written until they can be"))
      list += text + " is in no file\n";
    if (text != kLast && !has(follower_.texts, text)) list += text + " was not told\n";
    if (text != kLast && !has(exported_, text) && !has(ring, "the machine's own log did not take"))
      list += text + " was not exported\n";
    return list;
  }

  void judge() {
    EXPECT_EQ(missing(), "");
    EXPECT_LE(looks_, kMostLooks);
    const auto lost =
        std::count_if(writers_.begin(), writers_.end(), [](const auto& w) { return !w->isConnected(); });
    std::printf("%d disconnected", static_cast<int>(lost));
  }

  inline static const std::string kMuted = kl::test::hex(kl::test::bytes("0006 0002 0001"));

  const BookRules rules_ = rules();
  const Limits limits_;
  kl::test::LoaderDouble loader_;
  common::Descriptor log_;
  Listener listener_;
  std::unique_ptr<LogBook> book_;
  const common::KnownUsers users_;
  std::unique_ptr<LogService> service_;
  std::vector<std::unique_ptr<Writer>> writers_;
  Follower follower_;
  std::string exported_;
  bool hasWritten_ = false;
  unsigned int looks_ = 0;
  unsigned int signalledAt_ = 0;
};

void playService() {
  for (const auto& entry : std::filesystem::directory_iterator("/kelo"))
    if (entry.path().filename().string().starts_with("faults.")) std::filesystem::remove(entry.path());
  std::filesystem::remove(kl::logSocketPath());
  kl::test::hurry(kHaste);
  Stage().play();
}

bool endsTheConnectionToTheLoader(const FaultRun& run) {
  return run.child.err.rfind("LOOPER", 0) == 0 && run.child.exitStatus == 1;
}

class LogServiceFaults : public testing::TestWithParam<const char*> {};

// Mute records are a few bytes, which a local socket takes whole or not at all.
std::vector<kl::test::FaultKind> kindsOf(const std::string& call) {
  std::vector<kl::test::FaultKind> kinds = kl::test::faultsOf({call});
  std::erase_if(kinds,
                [&](const auto& kind) { return call == "send" && kind.outcome == kl::test::kFallsShort; });
  return kinds;
}

TEST_P(LogServiceFaults, NoLineIsLostButThoseOfAClientThatIsDisconnectedOrOfAFileThatSaysSo) {
  const auto kinds = kindsOf(GetParam());
  const unsigned int tried = kl::test::forEachFault(kinds, playService, [](const FaultRun& run) {
    if (endsTheConnectionToTheLoader(run)) return;
    EXPECT_EQ(run.child.exitStatus, 0) << run.child.err;
    EXPECT_EQ(run.child.err, "");
    const bool takesAConnection = run.is("recv", ECONNRESET);
    const bool isWhole = run.child.out == "0 disconnected" || run.child.out == "cannot run" ||
                         (takesAConnection && run.child.out == "1 disconnected");
    EXPECT_TRUE(isWhole) << run.child.out;
  });
  EXPECT_GE(tried, kinds.size());
}

// Not pipe2 and sigaction: without its signals the service could not be told to end.
INSTANTIATE_TEST_SUITE_P(Calls, LogServiceFaults,
                         testing::Values("read", "write", "send", "sendto", "recv", "poll", "accept4",
                                         "socket", "bind", "listen", "connect", "open", "close", "fdatasync",
                                         "rename", "chmod", "stat", "fstat", "unlink"),
                         [](const auto& call) { return std::string(call.param); });

}  // namespace
}  // namespace logd::test
