// The whole system from a shell: netif, the undo service and the client.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>

#include "tests/support/doubles/loader_process.h"
#include "tests/support/process/child.h"
#include "tests/support/process/open_folder.h"

namespace undo {
namespace {

constexpr char kServices[] =
    "[[service]]\nname = \"netif\"\nid = 32\ncommand = [\"" KL_BIN_DIR
    "/netif\"]\n[[service]]\nname = \"undo\"\nid = 17\ncommand = [\"" KL_BIN_DIR "/kl-undo\"]\n";
constexpr char kLo[] = "netif:1";  // the loopback interface has the first index in every network namespace

class NetifUndone : public testing::Test {
 protected:
  static std::string klctl(std::vector<std::string> words) {
    words.insert(words.begin(), KL_BIN_DIR "/klctl");
    const auto result = kl::test::runProgram(words);
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    return result.out;
  }

  static bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }

  // Netif does not wait for its report to arrive.
  static void awaitList(const std::string& part) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!has(klctl({"undo", "list"}), part)) {
      ASSERT_LT(std::chrono::steady_clock::now(), end) << "the undo service is told nothing of " << part;
      ::usleep(5000);
    }
  }

  kl::test::LoaderProcess loader_{kServices};
};

}  // namespace

TEST_F(NetifUndone, ADescriptionIsTakenBackAndGivenAgain) {
  klctl({"set", kLo, "descr=to itself"});
  awaitList("description of lo");
  klctl({"undo", "run", "1"});
  EXPECT_FALSE(has(klctl({"get", kLo}), "to itself"));
  EXPECT_TRUE(has(klctl({"undo", "show", "1"}), "what does it again:"));
  klctl({"undo", "run", "1"});
  EXPECT_TRUE(has(klctl({"get", kLo}), "to itself"));
  EXPECT_TRUE(has(klctl({"undo", "show", "1"}), "what undoes it:"));
  EXPECT_TRUE(has(klctl({"undo", "show", "1"}), "netif"));
}

TEST_F(NetifUndone, AnOrdinaryUserSeesAndUndoesNothing) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const kl::test::OpenFolder open(KL_BIN_DIR, "klctl");
  if (!open.isOpen()) GTEST_SKIP() << "other users cannot start " << open.program();
  const auto asNobody = [&open](const std::string& words) {
    return kl::test::runProgram(
        {"/bin/sh", "-c",
         "exec setpriv --reuid=65534 --regid=65534 --clear-groups env LD_LIBRARY_PATH=" + open.libraries() +
             " " + open.program() + " " + words});
  };
  klctl({"set", kLo, "descr=to itself"});
  awaitList("description of lo");
  const auto list = asNobody("undo list");
  EXPECT_EQ(list.exitStatus, 0) << list.err;
  EXPECT_EQ(list.out, "");
  const auto hidden = asNobody("undo show 1");
  EXPECT_EQ(hidden.exitStatus, 1);
  EXPECT_FALSE(has(hidden.out + hidden.err, "lo"));
  const auto refused = asNobody("undo run 1");
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_EQ(refused.err,
            "klctl: undo:1: your rights at the service that made the record do not suffice (9)\n");
  EXPECT_TRUE(has(klctl({"get", kLo}), "to itself"));
}

}  // namespace undo
