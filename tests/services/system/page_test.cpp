// The example of docs/system.md, as it stands there and as kl-system sends it.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "kl/services.h"
#include "tests/services/system/fixture.h"
#include "tests/support/hex.h"

namespace kl_system {
namespace {

// The pairs of digits at the beginning of the lines of the page's block.
kl::message example() {
  std::ifstream in(KL_SOURCE_DIR "/docs/system.md");
  const std::string page{std::istreambuf_iterator<char>(in), {}};
  const std::size_t begin = page.find("```\n") + 4;
  std::istringstream lines(page.substr(begin, page.find("```", begin) - begin));
  std::string digits;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    for (std::string word; words >> word && word.size() == 2;) digits += word;
  }
  kl::message m;
  const auto bytes = kl::test::bytes(digits);
  EXPECT_TRUE(m.unflatten(bytes.data(), static_cast<unsigned int>(bytes.size()), kl::message::normal));
  return m;
}

}  // namespace

TEST_F(SystemProcess, TheNotificationIsAsThePageShowsIt) {
  kl::test::RawPeer peer = connected();
  kl::message subscription = kl::test::notification({kl::SERVICE_SYSTEM, 0}, {5});
  subscription.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
  subscription.insert(kl::SYS_NOTIFYCMD, kl::SYSTEM_TIMEZONE_CHANGED);
  ASSERT_TRUE(peer.send(subscription));
  ASSERT_TRUE(ask(peer, kl::test::request({kl::SERVICE_SYSTEM, 0}, kl::CMD_GET, 1)));
  replaceFile(kZone, zoneBytes(-1800));
  const auto told = peer.receiveCommand(kl::SYSTEM_TIMEZONE_CHANGED);
  ASSERT_TRUE(told);
  EXPECT_EQ(*told, example());
}

}  // namespace kl_system
