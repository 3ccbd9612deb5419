#include "services/logd/keeping/syslog_export.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "kl/services.h"
#include "tests/services/logd/fixture.h"

namespace logd::test {
namespace {

// The machine's own log, played by the test.
class OtherLog {
 public:
  explicit OtherLog(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  std::string receive() {
    char text[65536];
    const ssize_t n = ::recv(fd_.get(), text, sizeof text, MSG_DONTWAIT);
    return n < 0 ? "nothing" : std::string(text, static_cast<std::size_t>(n));
  }

 private:
  common::Descriptor fd_;
};

TEST(SyslogExport, ALineCarriesPriorityNameAndProcess) {
  const Folder folder;
  OtherLog other(folder / "log");
  SyslogExport out(folder / "log");
  EXPECT_TRUE(out.send({1, originOf({32, kl::TOPIC_WARNING}, "netif", 812), "eth0 is down"}));
  EXPECT_EQ(other.receive(), "<28>netif[812]: eth0 is down");
  EXPECT_TRUE(out.send({1, originOf({32}, "netif", 812), "a\nb"}));
  EXPECT_EQ(other.receive(), "<30>netif[812]: a\\x0ab");
}

TEST(SyslogExport, WhoIsNotThereIsNotWaitedFor) {
  const Folder folder;
  SyslogExport out(folder / "log");
  EXPECT_FALSE(out.send(lineOf("a")));
  EXPECT_FALSE(out.send(lineOf("b")));
  EXPECT_EQ(out.takeLost(), 2u);
  EXPECT_EQ(out.takeLost(), 0u);
  OtherLog other(folder / "log");
  EXPECT_TRUE(out.send(lineOf("c")));
  EXPECT_EQ(other.receive(), "<30>p[7]: c");
}

TEST(SyslogExport, WhoDoesNotReadIsNotWaitedFor) {
  const Folder folder;
  OtherLog other(folder / "log");
  SyslogExport out(folder / "log");
  int sent = 0;
  while (sent < 100000 && out.send(lineOf(std::string(1000, 'x')))) ++sent;
  EXPECT_LT(sent, 100000);
  EXPECT_EQ(out.takeLost(), 1u);
}

}  // namespace
}  // namespace logd::test
