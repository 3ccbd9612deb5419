#include "services/loader/routing/open_requests.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>

#include "tests/services/loader/fixture.h"
#include "tests/support/build/effort.h"

namespace {

using loader::Envelope;
using loader::OpenRequests;
using loader::Path;
using loader::Service;
using loader::test::Ids;

// The envelope of a request, with the bytes that it borrows.
struct RequestFrame {
  RequestFrame(const Ids& to, unsigned int id, const Ids& from)
      : body(loader::test::flat(loader::test::request(to, kl::CMD_GET, id, from))) {
    EXPECT_EQ(readEnvelope(body, envelope), nullptr);
  }
  Path rest() const { return envelope.path().withoutFirst(); }
  Path returnPath() const { return envelope.returnPath(); }

  std::vector<unsigned char> body;
  Envelope envelope;
};

class OpenRequestsTest : public testing::Test {
 protected:
  void ask(Service& from, Service& to, unsigned int id, const Ids& returnPath, unsigned int now = 0) {
    const RequestFrame frame({to.id, 0}, id, returnPath);
    requests_.add(from, to, frame.envelope, frame.rest(), now);
  }
  bool answer(Service& caller, Service& callee, unsigned int id, const Ids& path) {
    const RequestFrame shape({1}, id, path);
    return requests_.take(caller, callee, id, shape.returnPath());
  }

  Service a_{10};
  Service b_{11};
  Service c_{12};
  OpenRequests requests_;
};

TEST_F(OpenRequestsTest, IdsThatCollideUnderOneSeedDoNotUnderAnother) {
  std::vector<unsigned int> colliding;  // found as an attacker would who knew the seed
  for (unsigned int id = 0; colliding.size() < 64; ++id) {
    OpenRequests known(7);
    const RequestFrame first({b_.id, 0}, 0, {7});
    const RequestFrame second({b_.id, 0}, id, {7});
    known.add(a_, b_, first.envelope, first.rest(), 0);
    known.add(a_, b_, second.envelope, second.rest(), 0);
    if (known.longestChain() == 2) colliding.push_back(id);
    while (known.oldestFrom(a_) != nullptr) known.forgetOldestFrom(a_);
  }
  const auto longestUnder = [&](OpenRequests requests) {
    for (const unsigned int id : colliding) {
      const RequestFrame frame({b_.id, 0}, id, {7});
      requests.add(a_, b_, frame.envelope, frame.rest(), 0);
    }
    const std::size_t longest = requests.longestChain();
    while (requests.oldestFrom(a_) != nullptr) requests.forgetOldestFrom(a_);
    return longest;
  };
  EXPECT_EQ(longestUnder(OpenRequests(7)), 64u);
  EXPECT_LT(longestUnder(OpenRequests(8)), 16u);
  EXPECT_LT(longestUnder(OpenRequests()), 32u);  // one that nobody knows
}

TEST_F(OpenRequestsTest, AReplyMatchesOnce) {
  ask(a_, b_, 1, {7});
  EXPECT_EQ(a_.requests.madeCount, 1u);
  EXPECT_EQ(b_.requests.servingCount, 1u);
  EXPECT_TRUE(answer(a_, b_, 1, {7}));
  EXPECT_FALSE(answer(a_, b_, 1, {7}));
  EXPECT_EQ(a_.requests.madeCount, 0u);
  EXPECT_EQ(b_.requests.servingCount, 0u);
}

TEST_F(OpenRequestsTest, CallerCalleeIdAndReturnPathMustAllAgree) {
  ask(a_, b_, 1, {7});
  EXPECT_FALSE(answer(c_, b_, 1, {7}));
  EXPECT_FALSE(answer(a_, c_, 1, {7}));
  EXPECT_FALSE(answer(b_, a_, 1, {7}));
  EXPECT_FALSE(answer(a_, b_, 2, {7}));
  EXPECT_FALSE(answer(a_, b_, 1, {8}));
  EXPECT_FALSE(answer(a_, b_, 1, {}));
  EXPECT_FALSE(answer(a_, b_, 1, {7, 7}));
  EXPECT_TRUE(answer(a_, b_, 1, {7}));
}

TEST_F(OpenRequestsTest, LongPathsAreKeptWhole) {
  const Ids path{1, 2, 3, 4, 5, 6, 7, 8, 9};
  ask(a_, b_, 1, path);
  EXPECT_EQ(requests_.oldestFrom(a_)->returnPath.ids(), path);
  EXPECT_FALSE(answer(a_, b_, 1, {1, 2, 3, 4, 5, 6, 7, 8, 10}));
  EXPECT_TRUE(answer(a_, b_, 1, path));
  ask(a_, b_, 2, {7});  // in the same place
  EXPECT_EQ(requests_.oldestFrom(a_)->returnPath.ids(), Ids{7});
}

TEST_F(OpenRequestsTest, OfEqualRequestsTheOldestIsAnsweredFirst) {
  ask(a_, b_, 1, {7}, 100);
  ask(a_, b_, 1, {7}, 200);
  EXPECT_EQ(requests_.oldestFrom(a_)->since.seconds, 100u);
  EXPECT_TRUE(answer(a_, b_, 1, {7}));
  EXPECT_EQ(requests_.oldestFrom(a_)->since.seconds, 200u);
}

TEST_F(OpenRequestsTest, TheListsRunFromTheOldestToTheNewest) {
  ask(a_, b_, 1, {7});
  ask(c_, b_, 2, {7});
  ask(a_, c_, 3, {7});
  EXPECT_EQ(requests_.oldestTo(b_)->id, 1u);
  requests_.forgetOldestTo(b_);
  EXPECT_EQ(requests_.oldestTo(b_)->id, 2u);
  EXPECT_EQ(requests_.oldestFrom(a_)->id, 3u);
  requests_.forgetOldestFrom(a_);
  EXPECT_EQ(requests_.oldestFrom(a_), nullptr);
  EXPECT_EQ(requests_.oldestTo(c_), nullptr);
  EXPECT_EQ(requests_.size(), 1u);
}

TEST_F(OpenRequestsTest, AServiceMayAskItself) {
  ask(a_, a_, 1, {7});
  EXPECT_EQ(a_.requests.madeCount, 1u);
  EXPECT_EQ(a_.requests.servingCount, 1u);
  EXPECT_TRUE(answer(a_, a_, 1, {7}));
  EXPECT_EQ(a_.requests.madeCount, 0u);
  EXPECT_EQ(a_.requests.servingCount, 0u);
}

TEST_F(OpenRequestsTest, RandomStepsAgreeWithAList) {
  struct Model {
    Service* caller;
    Service* callee;
    unsigned int id;
    unsigned int path;
  };
  std::deque<Model> model;
  std::mt19937 random(4711);
  Service* services[] = {&a_, &b_, &c_};
  for (unsigned int step = 0; step < kl::test::inOneThread(30000); ++step) {
    const auto upTo = [&](unsigned int end) { return static_cast<unsigned int>(random() % end); };
    Model m{services[upTo(3)], services[upTo(3)], upTo(40), upTo(3)};
    if (random() % 2 == 0 && model.size() < 500) {
      ask(*m.caller, *m.callee, m.id, {m.path});
      model.push_back(m);
    } else {
      const auto found = std::find_if(model.begin(), model.end(), [&](const Model& o) {
        return o.caller == m.caller && o.callee == m.callee && o.id == m.id && o.path == m.path;
      });
      ASSERT_EQ(answer(*m.caller, *m.callee, m.id, {m.path}), found != model.end()) << "step " << step;
      if (found != model.end()) model.erase(found);
    }
    ASSERT_EQ(requests_.size(), model.size());
    for (Service* s : services) {
      const auto asks =
          std::count_if(model.begin(), model.end(), [&](const Model& o) { return o.caller == s; });
      ASSERT_EQ(s->requests.madeCount, asks);
    }
  }
}

TEST_F(OpenRequestsTest, AWalkOverThePlacesMeetsEachOpenRequestOnce) {
  unsigned int place = 0;
  EXPECT_EQ(requests_.findFrom(place), nullptr);
  ask(a_, b_, 1, {7});
  ask(a_, b_, 2, {7});
  ask(c_, b_, 3, {7});
  ASSERT_TRUE(answer(a_, b_, 2, {7}));
  std::vector<unsigned int> met;
  for (place = 0; const loader::OpenRequest* request = requests_.findFrom(place); ++place)
    met.push_back(request->id);
  EXPECT_EQ(met, (std::vector<unsigned int>{1, 3}));
}

TEST_F(OpenRequestsTest, TheRequestsOfACallerAreWalkedFromTheOldest) {
  ask(a_, b_, 1, {7});
  ask(c_, b_, 2, {7});
  ask(a_, c_, 3, {7});
  const loader::OpenRequest* request = requests_.oldestFrom(a_);
  ASSERT_NE(request, nullptr);
  EXPECT_EQ(request->id, 1u);
  request = requests_.newerFrom(*request);
  ASSERT_NE(request, nullptr);
  EXPECT_EQ(request->id, 3u);
  EXPECT_EQ(requests_.newerFrom(*request), nullptr);
}

}  // namespace
