// The figures of a real loader at their socket.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "kl/conventions.h"
#include "kl/services.h"
#include "kl/utilities.h"
#include "services/common/local_socket.h"
#include "tests/services/loader/supervision.h"
#include "tests/support/doubles/loader_process.h"

namespace {

namespace fs = std::filesystem;
using kl::test::LoaderProcess;
using kl::test::service;

constexpr char kOn[] = "[loader]\nmetrics_socket = true\n";

class MetricsScenario : public kl::test::Supervision {
 protected:
  static std::string path() { return kl::underRoot("/ram/kelometrics"); }

  // Waits while too many others wait to be taken; not open where nobody takes connections.
  static common::Descriptor connected() {
    common::Descriptor socket = common::newStreamSocket();
    (void)::fcntl(socket.get(), F_SETFL, 0);
    if (!common::connectTo(socket.get(), path())) socket.close();
    return socket;
  }

  // The text until its end; none where nobody gives one.
  static std::string metrics() {
    const common::Descriptor socket = connected();
    if (!socket.isOpen()) return {};
    std::string text;
    char bytes[65536];
    for (ssize_t got; (got = ::recv(socket.get(), bytes, sizeof bytes, 0)) > 0;)
      text.append(bytes, static_cast<std::size_t>(got));
    return text;
  }

  static bool has(const std::string& text, const std::string& line) {
    return text.find("\n" + line + "\n") != std::string::npos;
  }

  void reload(const LoaderProcess& loader, const std::string& configuration) {
    loader.configure(configuration);
    const auto reply = ask({kl::SERVICE_LOADER}, kl::CMD_RELOAD);
    ASSERT_TRUE(reply && !kl::isError(*reply));
    ASSERT_TRUE(ask({kl::SERVICE_LOADER}, kl::CMD_NOOP));  // behind the change
  }
};

TEST_F(MetricsScenario, SayWhatTheTableSays) {
  const LoaderProcess loader(kOn + service("echo", 32, "serve"));
  connect();
  ASSERT_TRUE(askUntilAnswered({32, 3}));
  const kl::message echo = row(32);
  const std::string text = metrics();
  EXPECT_TRUE(text.starts_with("# TYPE kelo_all_in_messages counter\n")) << text;
  EXPECT_TRUE(text.ends_with("\n# EOF\n")) << text;
  const auto isAt = [&](const std::string& metric, unsigned long long value) {
    EXPECT_TRUE(has(text, metric + "{service=\"echo\"} " + std::to_string(value))) << metric << "\n" << text;
  };
  isAt("kelo_in_messages_total", echo.get(kl::SVC_MESSAGES_IN, 0));
  isAt("kelo_in_bytes_total", echo.get(kl::SVC_BYTES_IN, 0));
  isAt("kelo_out_messages_total", echo.get(kl::SVC_MESSAGES_OUT, 0));
  isAt("kelo_starts_total", 1);
  isAt("kelo_state", echo.get(kl::SVC_STATE, 0));
  EXPECT_TRUE(has(text, "kelo_other_services 1")) << text;
}

TEST_F(MetricsScenario, ThereIsNoSocketUntilAConfigurationAsksForOne) {
  const LoaderProcess loader;
  EXPECT_FALSE(fs::exists(path()));
  connect();
  reload(loader, kOn);
  struct stat about {};
  ASSERT_EQ(::stat(path().c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 07777, 0660u);
  EXPECT_TRUE(metrics().ends_with("# EOF\n"));
  reload(loader, "");
  EXPECT_FALSE(fs::exists(path()));
}

TEST_F(MetricsScenario, ASocketThatCannotBeIsALineAndTheSystemRuns) {
  fs::create_directories(path() + "/full");
  const LoaderProcess loader(kOn);
  EXPECT_TRUE(loader.logs(path() + ": Is a directory; there are no metrics")) << loader.log();
  connect();
  EXPECT_TRUE(ask({kl::SERVICE_LOADER}, kl::CMD_NOOP));
  fs::remove_all(path());
  reload(loader, kOn);  // and then it can
  EXPECT_TRUE(metrics().ends_with("# EOF\n"));
}

// The kernel keeps their texts for them.
TEST_F(MetricsScenario, AHundredWhoDoNotReadHoldUpNobody) {
  const LoaderProcess loader(kOn);
  connect();  // it answers when both of its sockets are there
  std::vector<common::Descriptor> stuck;
  for (int i = 0; i < 100; ++i) {
    stuck.push_back(connected());
    ASSERT_TRUE(stuck.back().isOpen());
  }
  EXPECT_TRUE(ask({kl::SERVICE_LOADER}, kl::CMD_NOOP));
  EXPECT_TRUE(metrics().ends_with("# EOF\n"));
}

}  // namespace
