// A copy of a table, with the service that has it played by the test.

#include "kl/follower.h"

#include <optional>

#include "leases.kl.h"
#include "tests/testkit/fixture.h"

namespace kl::test {
namespace {

using namespace std::chrono_literals;
using leases::Lease;

message leaseMessage(unsigned int id, const std::string& host) {
  message m;
  m.insert(leases::ID, id);
  m.insert(leases::MAC, {2, 0, 0, 0, 0, 1});
  m.insert(leases::HOST, host);
  return m;
}

message dead(unsigned int id) {
  message m;
  m.insert(STD_ID, id);
  m.insert(STD_DEAD, 1);
  return m;
}

// `next`: the id to go on from, or BADID.
message part(const std::vector<message>& objects, unsigned int next = BADID) {
  std::vector<message::flat_message> flat;
  for (const message& object : objects) flat.push_back(object.flattened());
  message m;
  m.insert(STD_OBJS, flat);
  if (next != BADID) m.insert(STD_GETALLID, next);
  return m;
}

class Copy : public Follower<Lease> {
 public:
  std::string take() { return std::exchange(notes_, ""); }

 private:
  void added(const Lease& lease) override { note("+" + *lease.host); }
  void changed(const Lease& before, const Lease& now) override { note(*before.host + ">" + *now.host); }
  void removed(const Lease& lease) override { note("-" + *lease.host); }
  void complete() override { note("whole"); }
  void lost(const Error& error) override { note(error ? "lost: " + error.describe() : "lost"); }
  void note(const std::string& what) { notes_ += (notes_.empty() ? "" : " ") + what; }

  std::string notes_;
};

class FollowerTest : public testing::Test {
 protected:
  FollowerTest() { bus_.add(1, copy_); }

  // The service is there and leaves the parts of its table to the test.
  void startService() {
    service_.emplace(bus_, leases::SERVICE);
    service_->ignore(CMD_GETALL);
  }
  void follow() {
    copy_.follow();
    bus_.runUntilIdle();
  }
  // The part of the table that the follower has asked for since the last call.
  std::optional<message> asked() {
    auto requests = service_->takeAsked();
    std::erase_if(requests, [](const message& m) { return m.get(SYS_CMD, 0) != CMD_GETALL; });
    EXPECT_EQ(requests.size(), 1u);
    return requests.empty() ? std::nullopt : std::optional(requests[0]);
  }
  void answer(const message& body) {
    if (const auto request = asked()) service_->reply(*request, body);
    bus_.runUntilIdle();
  }
  void notify(const std::vector<message>& objects) {
    service_->notify(part(objects));
    bus_.runUntilIdle();
  }
  std::string hosts() const {
    std::string all;
    copy_.forEach([&all](const Lease& lease) { all += std::to_string(*lease.id) + ":" + *lease.host + " "; });
    return all;
  }

  TestBus bus_{kService};
  Copy copy_;
  std::optional<Peer> service_;
};

TEST_F(FollowerTest, ReadsTheTablePartByPart) {
  startService();
  follow();
  answer(part({leaseMessage(1, "a"), leaseMessage(2, "b")}, 3));
  EXPECT_FALSE(copy_.isComplete());
  answer(part({leaseMessage(3, "c")}));
  EXPECT_TRUE(copy_.isComplete());
  EXPECT_EQ(copy_.take(), "+a +b +c whole");
  EXPECT_EQ(hosts(), "1:a 2:b 3:c ");
  EXPECT_EQ(copy_.size(), 3u);
  EXPECT_EQ(copy_.find(2)->host, "b");
  EXPECT_FALSE(copy_.find(4));
}

TEST_F(FollowerTest, TellsWhatBecomesDifferent) {
  startService();
  follow();
  answer(part({leaseMessage(1, "a"), leaseMessage(2, "b")}));
  (void)copy_.take();
  notify({leaseMessage(1, "a"), leaseMessage(3, "c"), leaseMessage(2, "B"), dead(1), dead(9)});
  EXPECT_EQ(copy_.take(), "+c b>B -a");
  EXPECT_EQ(hosts(), "2:B 3:c ");
}

TEST_F(FollowerTest, AnEndBetweenTwoPartsIsMadeGood) {
  startService();
  follow();
  answer(part({leaseMessage(1, "a"), leaseMessage(2, "b")}, 3));
  ASSERT_TRUE(asked()) << "the second part is under way";
  service_->end();
  bus_.runUntilIdle();
  EXPECT_EQ(copy_.take(), "+a +b lost: std failure: broken path (2)");
  EXPECT_EQ(hosts(), "1:a 2:b ") << "the copy stays";

  startService();
  bus_.advance(1s);
  answer(part({leaseMessage(2, "B"), leaseMessage(4, "d")}));
  EXPECT_EQ(copy_.take(), "b>B +d -a whole");
  EXPECT_EQ(service_->subscribers(), 1u);
  notify({dead(4)});
  EXPECT_EQ(copy_.take(), "-d");
  EXPECT_EQ(hosts(), "2:B ");
}

TEST_F(FollowerTest, WaitsForAServiceThatIsNotThereYet) {
  follow();
  EXPECT_TRUE(copy_.take().starts_with("lost: "));
  bus_.advance(10s);
  EXPECT_EQ(copy_.take(), "") << "it is told once";
  startService();
  bus_.advance(1s);
  answer(part({leaseMessage(1, "a")}));
  EXPECT_EQ(copy_.take(), "+a whole");
}

TEST_F(FollowerTest, ForgetsTheCopyWithoutAWord) {
  startService();
  follow();
  answer(part({leaseMessage(1, "a")}));
  (void)copy_.take();
  copy_.stop();
  bus_.runUntilIdle();
  EXPECT_EQ(copy_.size(), 0u);
  EXPECT_EQ(service_->subscribers(), 0u);
  EXPECT_EQ(copy_.take(), "");
}

TEST_F(FollowerTest, MayFollowAnotherTableInACallback) {
  struct Fickle : Follower<Lease> {
    void added(const Lease&) override { stop(); }
  } fickle;
  startService();
  bus_.add(2, fickle);
  fickle.follow({leases::SERVICE});
  bus_.runUntilIdle();
  answer(part({leaseMessage(1, "a"), leaseMessage(2, "b")}));
  EXPECT_EQ(fickle.size(), 0u);
}

}  // namespace
}  // namespace kl::test
