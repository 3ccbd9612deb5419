#include "tools/klctl/verbs/action.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"

namespace klctl {
namespace {

// The loader with netif in its table; keeps the last order.
class Actions : public testing::Test {
 protected:
  std::string run(const std::vector<const char*>& words) {
    return RecordedChannels([this](const kl::message& m) { return answer(m); }).perform(parsed(words));
  }

  kl::message answer(const kl::message& request) {
    if (request.has(kl::SVC_ACTION)) {
      ordered_ = request;
      return outcome_;
    }
    kl::message netif;
    netif.insert(kl::STD_ID, 32);
    netif.insert(kl::SVC_NAME, "netif");
    kl::message::flat_message bytes;
    netif.flatten(bytes);
    kl::message reply;
    reply.insert(kl::STD_OBJS, {bytes});
    return reply;
  }

  kl::message ordered_;
  kl::message outcome_;
};

}  // namespace

TEST_F(Actions, AnActionIsAnOrderToTheLoader) {
  for (const auto& [word, action] : {std::pair<const char*, unsigned int>{"start", kl::SVC_START},
                                     {"stop", kl::SVC_STOP},
                                     {"restart", kl::SVC_RESTART},
                                     {"leave", kl::SVC_LEAVE}}) {
    EXPECT_EQ(run({word, "netif"}), "");
    EXPECT_EQ(ordered_.get(kl::SYS_TO, {}), std::vector<unsigned int>{kl::SERVICE_LOADER});
    EXPECT_EQ(ordered_.get(kl::SYS_CMD, 0), kl::CMD_SETOBJ);
    EXPECT_EQ(ordered_.get(kl::STD_ID, 0), 32u);
    EXPECT_EQ(ordered_.get(kl::SVC_ACTION, 0), action);
  }
}

TEST_F(Actions, ARefusalToLeaveHasAStatusOfItsOwn) {
  const std::pair<const char*, unsigned int> orders[] = {
      {"leave", kl::ERROR_BUSY}, {"leave", kl::ERROR_FAILED}, {"stop", kl::ERROR_BUSY}};
  std::vector<int> statuses;
  for (const auto& [word, code] : orders) {
    outcome_ = kl::errorMsg(code, "because");
    statuses.push_back(failureOf([&, w = word] { (void)run({w, "netif"}); }).status);
  }
  EXPECT_EQ(statuses, (std::vector<int>{5, 1, 1}));
}

TEST_F(Actions, AReplyIsShownInEveryForm) {
  outcome_.insert(kl::STD_DESCR, "done");
  EXPECT_EQ(run({"stop", "netif"}), "descr done\n");
  EXPECT_EQ(run({"stop", "netif", "--json"}), "{\n  \"descr\": \"done\"\n}\n");
  EXPECT_NE(run({"stop", "netif", "--dump"}).find("STD_DESCR"), std::string::npos);
}

}  // namespace klctl
