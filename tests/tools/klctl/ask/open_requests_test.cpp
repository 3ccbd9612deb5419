#include "tools/klctl/ask/open_requests.h"

#include <gtest/gtest.h>

#include "tests/tools/klctl/waiting_services.h"

namespace klctl {

TEST(OpenRequestTable, TheOldestComeFirst) {
  WaitingServices loader;
  loader.add(28, "web", 700);
  loader.add(300, "leases");
  loader.wait(28, 300, 35);
  loader.wait(28, 301, 4200, 0x60001, {3, 4});
  const OpenRequests open = fetchOpenRequests([&](const kl::message& m) { return loader.answer(m); });
  ASSERT_EQ(open.requests.size(), 2u);
  EXPECT_EQ(open.requests[0].ageMs, 4200u);
  EXPECT_EQ(open.requests[0].asked, 301u);
  EXPECT_EQ(open.requests[0].path, (std::vector<unsigned int>{3, 4}));
  EXPECT_EQ(open.requests[0].command, 0x60001u);
  EXPECT_EQ(open.requests[1].asker, 28u);
  EXPECT_EQ(open.services.at(28).pid, 700);
  EXPECT_EQ(open.oldestOf(28), &open.requests[0]);
  EXPECT_EQ(open.oldestOf(300), nullptr);
}

TEST(OpenRequestTable, AServiceWithoutARowGoesByItsNumber) {
  OpenRequests open;
  open.services[28] = {"web", 700};
  open.services[29] = {"", 701};
  EXPECT_EQ(open.nameOf(28), "web");
  EXPECT_EQ(open.nameOf(29), "29");
  EXPECT_EQ(open.nameOf(301), "301");
}

TEST(OpenRequestTable, ALoaderThatRefusesIsAFailure) {
  EXPECT_THROW(
      (void)fetchOpenRequests([](const kl::message&) { return kl::errorMsg(kl::ERROR_NOTALLOWED, ""); }),
      Failure);
}

}  // namespace klctl
