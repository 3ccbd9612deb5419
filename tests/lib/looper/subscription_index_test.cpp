// Finding a subscription among many.

#include "looper/subscription_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace kl {
namespace {

message recordOf(unsigned int n) {
  message m;
  m.insert(SYS_FROM, {9, n});
  m.insert(STD_DESCR, "filter");
  return m;
}

// A list with its index, as a handler keeps them.
struct Indexed {
  explicit Indexed(std::uint32_t firstSerial = 1) : index(firstSerial) {}

  void add(const message& m) {
    list.push_back(m);
    index.noteAdded(list);
  }
  void remove(std::size_t place) {
    index.noteRemoval(list, place);
    list.erase(list.begin() + static_cast<std::ptrdiff_t>(place));
  }
  std::size_t find(const message& m) const { return index.find(list, m); }

  std::vector<message> list;
  SubscriptionIndex index;
};

// Few enough values that equal messages are often in the list at once, and sizes around the one at which the table
// comes and goes.
TEST(SubscriptionIndex, AgreesWithASearchThroughRandomSteps) {
  const unsigned int seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  Indexed indexed;
  std::size_t wanted = 0;
  for (int i = 0; i < 5000; ++i) {
    if (i % 100 == 0) wanted = random() % (i % 1000 == 0 ? 200 : 40);
    const message m = recordOf(static_cast<unsigned int>(random() % 60));
    const auto expected = std::find(indexed.list.begin(), indexed.list.end(), m) - indexed.list.begin();
    ASSERT_EQ(indexed.find(m), static_cast<std::size_t>(expected));
    if (indexed.list.size() < wanted) indexed.add(m);
    else if (!indexed.list.empty()) indexed.remove(random() % indexed.list.size());
  }
}

TEST(SubscriptionIndex, AnEqualMessageIsFoundWhateverTheOrderOfItsFields) {
  Indexed indexed;
  for (unsigned int i = 0; i < 100; ++i) {
    message m;
    m.insert(SYS_FROM, {9, i});
    m.insert(SYS_NOTIFYCMD, 0x60001);
    m.insert(STD_DESCR, "filter");
    m.insert_u64(0x10000001, i);
    m.insert_string_array(0xa0000001, {"a", "b"});
    indexed.add(m);
  }
  message other;
  other.insert_string_array(0xa0000001, {"a", "b"});
  other.insert_u64(0x10000001, 70);
  other.insert(STD_DESCR, "filter");
  other.insert(SYS_NOTIFYCMD, 0x60001);
  other.insert(SYS_FROM, {9, 70});
  EXPECT_EQ(indexed.find(other), 70u);
  other.insert(SYS_NOTIFYCMD, 0x60002);
  EXPECT_EQ(indexed.find(other), 100u);
}

// Its length is cut to 16 bits where it is written.
TEST(SubscriptionIndex, AMessageThatDoesNotReadBackIsFound) {
  Indexed indexed;
  for (unsigned int i = 0; i < 20; ++i) {
    message m = recordOf(i);
    if (i > 17) m.insert_raw(0x30000001, std::vector<unsigned char>(70000, static_cast<unsigned char>(i)));
    indexed.add(m);
  }
  const message last = indexed.list.back();
  EXPECT_EQ(indexed.find(last), 19u);
  indexed.remove(19);
  EXPECT_EQ(indexed.find(last), 19u) << "the size of the list";
}

TEST(SubscriptionIndex, SerialNumbersThatRunOutAreGivenAnew) {
  Indexed indexed(BADID - 50);
  for (unsigned int i = 0; i < 40; ++i) indexed.add(recordOf(i));
  for (unsigned int i = 0; i < 20; ++i) indexed.remove(i);  // every other one
  for (unsigned int i = 40; i < 80; ++i) indexed.add(recordOf(i));
  for (std::size_t i = 0; i < indexed.list.size(); ++i) EXPECT_EQ(indexed.find(message(indexed.list[i])), i);
  EXPECT_EQ(indexed.list.size(), 60u);
}

}  // namespace
}  // namespace kl
