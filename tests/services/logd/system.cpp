#include "tests/services/logd/system.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>

#include "kl/conventions.h"
#include "kl/services.h"
#include "kl/utilities.h"

namespace logd::test {
namespace {

constexpr int kDeadlineMs = 5000;

common::Descriptor connectToLog() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  kl::logSocketPath().copy(address.sun_path, sizeof address.sun_path - 1);
  common::Descriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fd.close();
  return fd;
}

bool isReadable(int fd) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, kDeadlineMs) == 1;
}

std::string loaderConfiguration() {
  return "[[service]]\nname = \"log\"\ncommand = [\"" KL_BIN_DIR "/kl-logd\", \"--config\", \"" +
         kl::underRoot("/kelo/kl-logd.toml") + "\"]\nrestart = \"always\"\n";
}

}  // namespace

bool comesTrue(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    ::usleep(2000);
  }
  return true;
}

LogClient::LogClient() {
  EXPECT_TRUE(comesTrue([this] {
    fd_ = connectToLog();
    return fd_.isOpen();
  }));
}

bool LogClient::write(const Bytes& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::send(fd_.get(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

Bytes LogClient::read(std::size_t count) {
  Bytes bytes(count);
  std::size_t got = 0;
  while (got < count && isReadable(fd_.get())) {
    const ssize_t n = ::read(fd_.get(), bytes.data() + got, count - got);
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  bytes.resize(got);
  return bytes;
}

bool LogClient::isDisconnected() {
  Bytes bytes(4096);
  while (isReadable(fd_.get()))
    if (::read(fd_.get(), bytes.data(), bytes.size()) <= 0) return true;
  return false;
}

AsUser::AsUser(unsigned int uid) { EXPECT_EQ(::seteuid(uid), 0); }
AsUser::~AsUser() { EXPECT_EQ(::seteuid(0), 0); }

System::System(const std::string& logConfiguration, const std::string& loaderSettings) {
  std::ofstream(kl::underRoot("/kelo/kl-logd.toml")) << logConfiguration;
  loader_ = std::make_unique<kl::test::LoaderProcess>(loaderSettings + loaderConfiguration());
  EXPECT_TRUE(peer_.connect());
  EXPECT_NE(peer_.registerAs(0), 0u);
  EXPECT_GT(logService(), 0);
}

pid_t System::logService(pid_t otherThan) {
  pid_t pid = 0;
  (void)comesTrue([&] {
    kl::message request;
    request.insert(kl::STD_ID, kl::SERVICE_LOG);
    const kl::message row = ask({kl::SERVICE_LOADER}, kl::CMD_GETOBJ, request);
    pid = static_cast<pid_t>(row.get(kl::SVC_PID, 0));
    return row.get(kl::SVC_STATE, 0) == kl::SVC_STATE_RUNNING && pid != otherThan;
  });
  return pid;
}

void System::become(unsigned int uid) {
  const AsUser user(uid);
  peer_ = kl::test::RawPeer();
  EXPECT_TRUE(peer_.connect());
  EXPECT_NE(peer_.registerAs(0), 0u);
}

kl::message System::ask(const std::vector<unsigned int>& to, unsigned int command, kl::message request) {
  kl::message m = kl::test::request(to, command, ++requests_);
  m.merge(request);
  EXPECT_TRUE(peer_.send(m));
  return peer_.receiveReply(requests_, 20000).value_or(kl::message());
}

void System::subscribe(const std::vector<unsigned int>& to, kl::message filter) {
  kl::message m = kl::test::notification(to);
  m.merge(filter);
  m.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
  EXPECT_TRUE(peer_.send(m));
  (void)ask(to, kl::CMD_NOOP);  // it has been taken once this is answered
}

std::vector<kl::message> System::lines(const kl::message& filter) {
  std::vector<kl::message> result;
  kl::message request = filter;
  for (;;) {
    const kl::message reply = ask({kl::SERVICE_LOG}, kl::CMD_GETALL, request);
    for (const auto& object : reply.get(kl::STD_OBJS, {})) result.emplace_back(object);
    if (!reply.has(kl::STD_GETALLID)) return result;
    request.insert(kl::STD_GETALLID, reply.get(kl::STD_GETALLID, 0));
  }
}

bool System::hasLine(const std::string& text) {
  kl::message request;
  request.insert(kl::LOG_CONTAINS, text);
  return comesTrue(
      [&] { return ask({kl::SERVICE_LOG}, kl::CMD_GETCOUNT, request).get(kl::STD_GETALLNO, 0) > 0; });
}

void System::mute(unsigned int topic, bool muted) {
  kl::message request;
  request.insert(kl::STD_ID, topic);
  request.insert(kl::LOG_MUTED, muted);
  EXPECT_FALSE(kl::isError(ask({kl::SERVICE_LOG, kl::LOG_RULES}, kl::CMD_SETOBJ, request)));
}

unsigned long long System::figure(kl::field<unsigned long long> field) {
  return ask({kl::SERVICE_LOG}, kl::CMD_GET).get(field, 0);
}

}  // namespace logd::test
