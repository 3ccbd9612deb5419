#include <gtest/gtest.h>

#include "hello.kl.h"
#include "kl/looper.h"
#include "tests/support/doubles/loader_process.h"

namespace {

constexpr int kHelloTicks = 2000;

class HelloService : public testing::Test {
 protected:
  kl::message ask(unsigned int command, kl::message m = {}) {
    m.insert(kl::SYS_TO, hello::Greeting::kRules.path());
    return client_.exchangeCmd(m, command, kHelloTicks);
  }

  kl::test::LoaderProcess loader_{"[[service]]\nname = \"hello\"\ncommand = [\"" KL_BIN_DIR "/hello\"]\n"};
  kl::Looper client_{kl::Looper::kConnect};
};

}  // namespace

TEST_F(HelloService, SaysHelloAndThenWhatItIsTold) {
  EXPECT_EQ(ask(kl::CMD_GET).get(hello::DESCR, ""), "hello");
  kl::message change;
  change.insert(hello::DESCR, "good day");
  EXPECT_FALSE(kl::isError(ask(kl::CMD_SET, change)));
  EXPECT_EQ(ask(kl::CMD_GET).get(hello::DESCR, ""), "good day");
}

TEST_F(HelloService, MissesATextThatIsNotGiven) {
  unsigned int code = 0;
  EXPECT_TRUE(kl::isError(ask(kl::CMD_SET), &code));
  EXPECT_EQ(code, kl::ERROR_MISSING);
  EXPECT_EQ(ask(kl::CMD_GET).get(hello::DESCR, ""), "hello");
}
