#include "services/loader/routing/subscriptions.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>

#include "services/loader/quota/accounts.h"
#include "tests/services/loader/fixture.h"
#include "tests/support/build/effort.h"

namespace {

using loader::Envelope;
using loader::Path;
using loader::Service;
using loader::Subscriptions;
using loader::test::Ids;
using Outcome = loader::Subscriptions::Outcome;

loader::Limits limits(std::size_t most, std::size_t bytes) {
  loader::Limits result;
  result.user[loader::Resource::kSubscriptions] = most;
  result.user[loader::Resource::kSubscriptionBytes] = bytes;
  return result;
}

// A path with the bytes that it borrows.
class PathOf {
 public:
  explicit PathOf(const Ids& ids) : body_(loader::test::flat(loader::test::notification({1}, ids))) {
    EXPECT_EQ(readEnvelope(body_, envelope_), nullptr);
  }
  operator Path() const { return envelope_.returnPath(); }

 private:
  std::vector<unsigned char> body_;
  Envelope envelope_;
};

class SubscriptionsTest : public testing::Test {
 protected:
  // From now on alice, whose process is service 10, and bob, whose process is 11, may have so much.
  void setLimits(std::size_t most, std::size_t bytes) {
    accounts_ = std::make_unique<loader::Accounts>(limits(most, bytes), 0);
    alice_ = &accounts_->ofUser(1000, 0);
    reader_.account = alice_;
    other_.account = &accounts_->ofUser(1001, 0);
  }

  static kl::message wish(unsigned int command = kl::CMD_NOTIFY) {
    kl::message m = loader::test::notification({24});
    m.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
    if (command != kl::CMD_NOTIFY) m.insert(kl::SYS_NOTIFYCMD, command);
    return m;
  }

  Outcome add(Service& subscriber, const Ids& handler, const Ids& returnPath, const kl::message& m = wish()) {
    return all_.add(provider_, PathOf(handler), subscriber, PathOf(returnPath), loader::test::flat(m));
  }
  void remove(Service& subscriber, const Ids& handler, const Ids& returnPath, const kl::message& m = wish()) {
    all_.remove(provider_, PathOf(handler), subscriber, PathOf(returnPath), loader::test::flat(m));
  }
  bool has(Service& subscriber, const Ids& handler, const Ids& returnPath,
           unsigned int command = kl::CMD_NOTIFY) {
    const PathOf inProvider(handler);
    const PathOf inSubscriber(returnPath);
    return all_.has({provider_, inProvider, subscriber, inSubscriber, command});
  }

  std::unique_ptr<loader::Accounts> accounts_;
  loader::Account* alice_ = nullptr;
  Service provider_{24};
  Service second_{25};
  Service reader_{10};
  Service other_{11};
  Subscriptions all_;
};

TEST_F(SubscriptionsTest, AChannelIsFoundByAllOfItsPartsOnly) {
  EXPECT_EQ(add(reader_, {3}, {7, 8}, wish(0x60001)), Outcome::kAdded);
  EXPECT_TRUE(has(reader_, {3}, {7, 8}, 0x60001));
  EXPECT_FALSE(has(reader_, {3}, {7, 8}));
  EXPECT_FALSE(has(reader_, {3, 7}, {8}, 0x60001));
  EXPECT_FALSE(has(reader_, {}, {3, 7, 8}, 0x60001));
  EXPECT_FALSE(has(other_, {3}, {7, 8}, 0x60001));
  const PathOf handler({3});
  const PathOf path({7, 8});
  EXPECT_FALSE(all_.has({second_, handler, reader_, path, 0x60001}));
  EXPECT_FALSE(all_.has({reader_, handler, provider_, path, 0x60001}));
}

TEST_F(SubscriptionsTest, EmptyPathsArePaths) {
  EXPECT_EQ(add(reader_, {}, {}), Outcome::kAdded);
  EXPECT_TRUE(has(reader_, {}, {}));
  EXPECT_FALSE(has(reader_, {0}, {}));
}

TEST_F(SubscriptionsTest, TheSameAgainIsKnownWhateverItsSystemFieldsSay) {
  kl::message m = wish();
  m.insert(kl::STD_ID, 5);
  EXPECT_EQ(add(reader_, {3}, {7}, m), Outcome::kAdded);
  m.insert(kl::SYS_REQID, 9);
  m.insert(kl::SYS_REPLYEXP, true);
  m.insert(kl::SYS_USER, "alice");
  m.insert(kl::SYS_POLICY, 64);
  EXPECT_EQ(add(reader_, {3}, {7}, m), Outcome::kKnown);
  EXPECT_EQ(all_.size(), 1u);
}

TEST_F(SubscriptionsTest, SubscriptionsOfOneChannelDifferInTheirFilters) {
  kl::message five = wish();
  five.insert(kl::STD_ID, 5);
  kl::message six = wish();
  six.insert(kl::STD_ID, 6);
  kl::message named = wish();
  named.insert(kl::SYS_NOTIFYCMD, kl::CMD_NOTIFY);  // said or not: a provider tells them apart
  for (const kl::message& m : {wish(), five, six, named})
    EXPECT_EQ(add(reader_, {3}, {7}, m), Outcome::kAdded);
  EXPECT_EQ(all_.size(), 4u);
  EXPECT_EQ(all_.channels(), 1u);
  for (const kl::message& m : {five, wish(), named}) {
    remove(reader_, {3}, {7}, m);
    EXPECT_TRUE(has(reader_, {3}, {7}));
  }
  remove(reader_, {3}, {7}, six);
  EXPECT_FALSE(has(reader_, {3}, {7}));
  EXPECT_EQ(all_.channels(), 0u);
}

TEST_F(SubscriptionsTest, TheOrderAndTheFormOfAFiltersFieldsDoNotCount) {
  const PathOf none({});
  const auto body = [](const char* fields) {
    std::vector<unsigned char> bytes{0x4d, 0x32};
    for (const char* at = fields; *at != 0; at += 2)
      bytes.push_back(static_cast<unsigned char>(std::stoi(std::string(at, 2), nullptr, 16)));
    return bytes;
  };
  const auto one = body(
      "0100000905"
      "0200000906");  // u32 1: 5, u32 2: 6, both short
  const auto same = body(
      "0200000806000000"
      "0100000805000000");  // the other way around, both long
  const auto another = body(
      "0100000906"
      "0200000905");
  EXPECT_EQ(all_.add(provider_, none, reader_, none, one), Outcome::kAdded);
  EXPECT_EQ(all_.add(provider_, none, reader_, none, same), Outcome::kKnown);
  EXPECT_EQ(all_.add(provider_, none, reader_, none, another), Outcome::kAdded);
  all_.remove(provider_, none, reader_, none, same);
  EXPECT_EQ(all_.size(), 1u);
}

TEST_F(SubscriptionsTest, RemovingWhatIsNotThereChangesNothing) {
  (void)add(reader_, {3}, {7});
  remove(other_, {3}, {7});
  remove(reader_, {4}, {7});
  remove(reader_, {3}, {8});
  remove(reader_, {3}, {7}, wish(0x60001));
  EXPECT_EQ(all_.size(), 1u);
}

TEST_F(SubscriptionsTest, BeyondTheNumberOfAnAccountTheNewestIsRefused) {
  setLimits(3, 1 << 10);
  std::string refused;
  all_.setOnRefused([&](const Service& subscriber, const Service& provider) {
    refused += std::to_string(subscriber.id) + " at " + std::to_string(provider.id) + ";";
  });
  for (unsigned int i = 0; i < 3; ++i) EXPECT_EQ(add(reader_, {i}, {7}), Outcome::kAdded);
  Service alsoOfAlice(12);
  alsoOfAlice.account = alice_;
  EXPECT_EQ(add(alsoOfAlice, {3}, {7}), Outcome::kRefused);
  EXPECT_EQ(refused, "12 at 24;");
  EXPECT_FALSE(has(alsoOfAlice, {3}, {7}));
  EXPECT_EQ(add(reader_, {1}, {7}), Outcome::kKnown);
  EXPECT_EQ(add(other_, {3}, {7}), Outcome::kAdded);  // another account
  remove(reader_, {0}, {7});
  EXPECT_EQ(add(alsoOfAlice, {3}, {7}), Outcome::kAdded);
  all_.forgetProvider(provider_);
}

TEST_F(SubscriptionsTest, TheBytesOfAnAccountAreBounded) {
  kl::message large = wish();
  large.insert_raw(0x30000001, std::vector<unsigned char>(1000));
  setLimits(100, 2500);
  EXPECT_EQ(add(reader_, {1}, {7}, large), Outcome::kAdded);
  EXPECT_GE(alice_->used(loader::Resource::kSubscriptionBytes), 1000u);
  EXPECT_EQ(add(reader_, {2}, {7}, large), Outcome::kAdded);
  EXPECT_EQ(add(reader_, {3}, {7}, large), Outcome::kRefused);
  EXPECT_EQ(add(reader_, {3}, {7}), Outcome::kAdded);  // a small one
  EXPECT_EQ(alice_->used(loader::Resource::kSubscriptions), 3u);
  all_.forgetProvider(provider_);
  EXPECT_EQ(alice_->used(loader::Resource::kSubscriptions), 0u);
  EXPECT_EQ(alice_->used(loader::Resource::kSubscriptionBytes), 0u);
}

TEST_F(SubscriptionsTest, AServiceThatIsGoneTakesItsSubscriptionsWithIt) {
  (void)add(reader_, {1}, {7});
  (void)add(other_, {1}, {7});
  (void)all_.add(second_, Path(), reader_, Path(), loader::test::flat(wish()));
  (void)all_.add(reader_, Path(), other_, Path(), loader::test::flat(wish()));
  all_.forgetProvider(reader_);
  EXPECT_EQ(all_.size(), 3u);
  all_.forgetSubscriber(reader_);
  EXPECT_EQ(all_.size(), 1u);
  EXPECT_TRUE(has(other_, {1}, {7}));
}

TEST_F(SubscriptionsTest, WhatLiesBehindAReturnPathIsForgotten) {
  for (const Ids& path : {Ids{}, Ids{8}, Ids{8, 1}, Ids{8, 2, 3}, Ids{9, 8}, Ids{88}}) {
    (void)add(reader_, {1}, path);
    (void)add(reader_, {2}, path);
    (void)add(other_, {1}, path);
  }
  all_.forgetBehind(provider_, PathOf({1}), reader_, PathOf({8}));  // one handler has been told
  EXPECT_EQ(all_.size(), 15u);
  all_.forgetBehind(provider_, Path(), reader_, PathOf({8}));
  EXPECT_EQ(all_.size(), 12u);
  EXPECT_TRUE(has(reader_, {1}, {}) && has(reader_, {2}, {9, 8}) && has(reader_, {2}, {88}));
  all_.forgetBehind(provider_, Path(), reader_, Path());
  EXPECT_EQ(all_.size(), 6u);
  EXPECT_TRUE(has(other_, {1}, {8, 1}));
}

TEST_F(SubscriptionsTest, TheListOfAProviderIsInTheOrderOfArrival) {
  for (unsigned int i = 0; i < 5; ++i) (void)add(reader_, {1}, {i});
  remove(reader_, {1}, {0});
  remove(reader_, {1}, {2});
  remove(reader_, {1}, {4});
  (void)add(reader_, {1}, {2});
  Ids order;
  for (const auto* s = provider_.subscriptions.oldestAt; s != nullptr; s = s->newerAt)
    order.push_back(s->channel->returnPathIds().at(0));
  EXPECT_EQ(order, (Ids{1, 3, 2}));
}

// Random steps beside a set of what should be there; every step leaves both equal.
TEST_F(SubscriptionsTest, RandomStepsKeepTheTableAndItsAccountsTrue) {
  using Key = std::tuple<Service*, Service*, unsigned int, unsigned int, unsigned int>;
  Service third(12);
  Service* const services[] = {&provider_, &second_, &reader_, &other_, &third};
  setLimits(1 << 20, 1 << 30);
  third.account = alice_;
  std::set<Key> model;
  std::minstd_rand random(4711);
  const auto below = [&](unsigned int end) { return static_cast<unsigned int>(random() % end); };
  for (unsigned int step = 0; step < kl::test::inOneThread(20000); ++step) {
    Service* const at = services[below(5)];
    Service* const of = services[below(5)];
    const Key key{at, of, below(3), below(3), below(3)};
    kl::message m = wish(0x60000 + std::get<3>(key));
    if (std::get<4>(key) != 0) m.insert(kl::STD_ID, std::get<4>(key));
    const PathOf handler(Ids(std::get<2>(key), 7));
    const PathOf path({std::get<2>(key)});
    switch (below(40)) {
      case 0:
        all_.forgetProvider(*at);
        std::erase_if(model, [&](const Key& k) { return std::get<0>(k) == at; });
        break;
      case 1:
        all_.forgetSubscriber(*of);
        std::erase_if(model, [&](const Key& k) { return std::get<1>(k) == of; });
        break;
      default:
        if (below(3) == 0) {
          all_.remove(*at, handler, *of, path, loader::test::flat(m));
          model.erase(key);
        } else {
          const bool isNew = model.insert(key).second;
          ASSERT_EQ(all_.add(*at, handler, *of, path, loader::test::flat(m)),
                    isNew ? Outcome::kAdded : Outcome::kKnown);
        }
    }
    ASSERT_EQ(all_.size(), model.size()) << "step " << step;
    std::set<std::tuple<Service*, Service*, unsigned int, unsigned int>> channels;
    for (const Key& k : model)
      channels.insert({std::get<0>(k), std::get<1>(k), std::get<2>(k), std::get<3>(k)});
    ASSERT_EQ(all_.channels(), channels.size()) << "step " << step;
    ASSERT_EQ(all_.has({*at, handler, *of, path, 0x60000 + std::get<3>(key)}),
              channels.contains({at, of, std::get<2>(key), std::get<3>(key)}));
  }
  for (Service* const service : services) all_.forgetProvider(*service);
  EXPECT_EQ(all_.size(), 0u);
  EXPECT_EQ(alice_->used(loader::Resource::kSubscriptions), 0u);
  EXPECT_EQ(alice_->used(loader::Resource::kSubscriptionBytes), 0u);
}

}  // namespace
