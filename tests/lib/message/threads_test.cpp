// Copies of one message in several threads.
//
// Each thread does at random what a service might do with messages of its own, some of which share a representation with
// those of the others, and knows all the while what must be in them: a message of version v holds in every field what
// v says.  The thread sanitizer sees the races; the values show what was changed under somebody's hands.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kl/message.h"
#include "message/rep.h"
#include "tests/lib/message/allocation_count.h"
#include "tests/support/hex.h"

namespace {

using kl::message;
using kl::test::bytes;

using Bytes = std::vector<unsigned char>;
using Flat = message::flat_message;

constexpr unsigned int kThreads = 4;

// --- Messages of a version ------------------------------------------------------------------------------------

constexpr unsigned int kBool = 0x00000001;
constexpr unsigned int kNumber = 0x08000001;
constexpr unsigned int kBigNumber = 0x10000001;
constexpr unsigned int kAddress = 0x18000001;
constexpr unsigned int kText = 0x20000001;
constexpr unsigned int kNested = 0x28000001;
constexpr unsigned int kRaw = 0x30000001;
constexpr unsigned int kNumbers = 0x88000001;
constexpr unsigned int kTexts = 0xA0000001;

std::string textOf(unsigned int v) {
  return "a text that is long enough to lie on the heap, " + std::to_string(v);
}

kl::IPAddr6 addressOf(unsigned int v) {
  kl::IPAddr6 address;
  address.bytes[15] = static_cast<unsigned char>(v);
  return address;
}

Bytes rawOf(unsigned int v) { return Bytes(1 + v % 40, static_cast<unsigned char>(v)); }

Flat nestedOf(unsigned int v) {
  message m;
  m.insert_u32(kNumber, v);
  m.insert_string(kText, textOf(v));
  Flat out;
  m.flatten(out);
  return out;
}

// Gives every single value what `v` says.
void changeTo(message& m, unsigned int v) {
  m.insert_bool(kBool, v % 2 == 1);
  m.insert_u32(kNumber, v);
  m.insert_u64(kBigNumber, 0x100000000ULL * v);
  m.insert_addr6(kAddress, addressOf(v));
  m.insert_string(kText, textOf(v));
  m.insert_message(kNested, nestedOf(v));
  m.insert_raw(kRaw, rawOf(v));
}

bool holdsValues(const message& m, unsigned int v) {
  return m.get_bool(kBool, v % 2 == 0) == (v % 2 == 1) && m.get_u32(kNumber, v + 1) == v &&
         m.get_u64(kBigNumber, 1) == 0x100000000ULL * v && m.get_addr6(kAddress) == addressOf(v) &&
         m.get_string(kText, "") == textOf(v) && m.get_message(kNested, {}) == nestedOf(v) &&
         m.get_raw(kRaw, {}) == rawOf(v);
}

// The same by reference: the first who asks makes the object, for all copies.
bool holdsObjects(const message& m, unsigned int v) {
  return *m.get_bool_ref(kBool) == (v % 2 == 1) && *m.get_u32_ref(kNumber) == v &&
         *m.get_u64_ref(kBigNumber) == 0x100000000ULL * v && *m.get_addr6_ref(kAddress) == addressOf(v) &&
         *m.get_string_ref(kText) == textOf(v) && *m.get_message_ref(kNested) == nestedOf(v) &&
         *m.get_raw_ref(kRaw) == rawOf(v) &&
         message(*m.get_message_ref(kNested)).get_u32(kNumber, v + 1) == v;
}

// Arrays hold the same in every version, so that a message need not be unshareable.
const std::vector<unsigned int> kSomeNumbers{1, 2, 0xdeadbeef};
const std::vector<std::string> kSomeTexts{"a", "", "a text that is long enough to lie on the heap"};

bool holdsArrays(const message& m) {
  if (!m.has_array(kNumbers)) return true;
  return m.get_u32_array(kNumbers) == kSomeNumbers && *m.get_string_array_ref(kTexts) == kSomeTexts;
}

// How messages of one version may come about, which decides what their copies share.
message built() {
  message m;
  changeTo(m, 0);
  return m;
}
message builtWithArrays() {  // unshareable
  message m = built();
  m.insert_u32_array(kNumbers, kSomeNumbers);
  m.insert_string_array(kTexts, kSomeTexts);
  return m;
}
message parsed() {  // unshareable, like a frame that was just read
  Bytes out;
  builtWithArrays().flatten(out);
  return message(out);
}
message handedOver() {  // the same, made to be shared
  Bytes out;
  builtWithArrays().flatten(out);
  message m;
  m.assign(out.data(), static_cast<unsigned int>(out.size()));
  return m;
}
message withObjects() {
  message m = built();
  EXPECT_TRUE(holdsObjects(m, 0));
  return m;
}
message large() {  // its tables and lists have indices
  message m = built();
  for (unsigned int i = 100; i < 200; ++i) {
    m.insert_u32(0x08000000 + i, i);
    m.insert_string(0x20000000 + i, "x");
  }
  return m;
}

// --- What a thread does ---------------------------------------------------------------------------------------

// The content of a message beside its version.
enum class Content { kNothing, kValues, kArraysToo, kMany };

struct Versioned {
  message m;
  Content content = Content::kNothing;
  unsigned int version = 0;
};

// Where threads leave messages for each other.
class Mailbox {
 public:
  void put(const Versioned& letter) {
    const std::lock_guard lock(mutex_);
    letters_[next_++ % letters_.size()] = letter;
  }
  Versioned take() {
    const std::lock_guard lock(mutex_);
    return letters_[next_ % letters_.size()];
  }

 private:
  std::mutex mutex_;
  std::array<Versioned, 8> letters_;
  std::size_t next_ = 0;
};

// One thread's messages and what it does with them.
class Worker {
 public:
  Worker(const Versioned& origin, Mailbox& mailbox, unsigned int seed) : mailbox_(mailbox), random_(seed) {
    mine_.fill(origin);
  }

  void work(unsigned int steps) {
    for (unsigned int i = 0; i < steps; ++i) step();
    for (const Versioned& mine : mine_) expect(isWhole(mine), "what is left");
  }

  const std::string& firstFault() const { return fault_; }

 private:
  void step() {
    Versioned& a = any();
    Versioned& b = any();
    switch (random() % 11) {
      case 0: a = b; break;
      case 1: expect(holdsNothing(a) || (holdsValues(a.m, a.version) && holdsArrays(a.m)), "values"); break;
      case 2: expect(holdsNothing(a) || (holdsObjects(a.m, a.version) && holdsArrays(a.m)), "objects"); break;
      case 3: change(a); break;
      case 4: expect(survivesFlattening(a), "flattening"); break;
      case 5: expect((a.m == b.m) == (a.version == b.version && a.content == b.content), "comparison"); break;
      case 6: exchange(a, b); break;
      case 7: a = Versioned(); break;
      case 8: a.m.clone(); break;
      case 9: sendAndReceive(a); break;
      case 10: expect(isDumped(a), "dump"); break;
      default: break;
    }
  }

  unsigned int random() { return static_cast<unsigned int>(random_()); }
  Versioned& any() { return mine_[random() % mine_.size()]; }

  static bool holdsNothing(const Versioned& v) { return v.content == Content::kNothing; }
  static bool isWhole(const Versioned& v) {
    return holdsNothing(v) ? v.m == message()
                           : holdsValues(v.m, v.version) && holdsObjects(v.m, v.version) && holdsArrays(v.m);
  }

  void change(Versioned& v) {
    if (holdsNothing(v)) v.content = Content::kValues;
    v.version = 1 + random() % 1000;
    changeTo(v.m, v.version);
  }

  static void exchange(Versioned& a, Versioned& b) {
    swap(a.m, b.m);
    std::swap(a.content, b.content);
    std::swap(a.version, b.version);
  }

  void sendAndReceive(Versioned& v) {
    mailbox_.put(v);
    v = mailbox_.take();
  }

  static bool survivesFlattening(const Versioned& v) {
    Bytes out;
    v.m.flatten(out);
    return out.size() <= v.m.max_length() && message(out) == v.m;
  }

  static bool isDumped(const Versioned& v) {
    std::ostringstream out;
    out << v.m;
    return holdsNothing(v) || out.str().find(textOf(v.version)) != std::string::npos;
  }

  void expect(bool isRight, const char* what) {
    if (!isRight && fault_.empty()) fault_ = what;
  }

  Mailbox& mailbox_;
  std::minstd_rand random_;
  std::array<Versioned, 5> mine_;
  std::string fault_;
};

void workOn(const Versioned& first, const Versioned& second) {
  Mailbox mailbox;
  std::vector<Worker> workers;
  for (unsigned int t = 0; t < kThreads; ++t)
    workers.emplace_back(t % 2 == 0 ? first : second, mailbox, t + 1);
  std::vector<std::thread> threads;
  for (Worker& worker : workers) threads.emplace_back([&worker] { worker.work(5000); });
  for (std::thread& thread : threads) thread.join();
  for (const Worker& worker : workers) EXPECT_EQ(worker.firstFault(), "");
}

TEST(Threads, SharedCopiesStandEveryUse) { workOn({built(), Content::kValues}, {large(), Content::kMany}); }

TEST(Threads, PrivateCopiesStandEveryUse) {
  workOn({builtWithArrays(), Content::kArraysToo}, {parsed(), Content::kArraysToo});
}

TEST(Threads, CopiesOfAFrameStandEveryUse) {
  const Versioned frame{handedOver(), Content::kArraysToo};
  workOn(frame, frame);
}

TEST(Threads, CopiesThatShareObjectsStandEveryUse) {
  workOn({withObjects(), Content::kValues}, {built(), Content::kValues});
}

// --- Single promises ------------------------------------------------------------------------------------------

TEST(Threads, CopiesOfOneMessageAreReadChangedAndDestroyedAtOnce) {
  message origin;
  origin.insert_u32(0x08000001, 1);
  for (unsigned int i = 0; i < 40; ++i) origin.insert_string(0x20000000 + i, "text");
  std::vector<std::thread> threads;
  std::atomic<unsigned int> right{0};
  for (unsigned int t = 0; t < 4; ++t)
    threads.emplace_back([copy = origin, &right, t]() mutable {
      for (unsigned int i = 0; i < 300; ++i) {
        const message mine(copy);
        message changed(mine);
        changed.insert_u32(0x08000001, t + 100);
        const bool same = *mine.get_string_ref(0x20000000 + i % 40) == "text";
        if (same && mine.get_u32(0x08000001, 0) == 1 && changed.get_u32(0x08000001, 0) == t + 100) ++right;
        if (i % 50 == 0) copy = message(mine);
      }
    });
  origin = message();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, 1200u);
}

// They come and go so quickly that a count which is not changed in one step loses some.
TEST(Threads, EachOfManyCopiesIsCountedOnce) {
  const message shared = built();
  std::vector<std::thread> threads;
  for (unsigned int t = 0; t < kThreads; ++t)
    threads.emplace_back([&shared] {
      for (unsigned int i = 0; i < 200000; ++i) const message copy(shared);
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(kl::RepAccess::read(shared).refs.load(), 1);
}

TEST(Threads, TheFirstToAskForAReferencePublishesTheObject) {
  for (int round = 0; round < 200; ++round) {
    message origin;
    origin.insert_string(0x20000001, "a text that is too long for the short form");
    const message shared(origin);
    const std::string* seen[2] = {nullptr, nullptr};
    std::thread other([&seen, copy = shared] { seen[0] = copy.get_string_ref(0x20000001); });
    seen[1] = shared.get_string_ref(0x20000001);
    other.join();
    EXPECT_EQ(seen[0], seen[1]);
  }
}

// The second begins while the first one makes its object, and is done with its own before that.
TEST(Threads, OfTwoThatMakeTheObjectBothGetTheOneThatWasPublishedFirst) {
  const message one = built();
  const message other(one);
  const std::string* published = nullptr;
  {
    const kl::test::AtNextAllocation meanwhile([&] { published = other.get_string_ref(kText); });
    EXPECT_EQ(one.get_string_ref(kText), published);
  }
  ASSERT_NE(published, nullptr);
  EXPECT_EQ(*published, textOf(0));
  EXPECT_EQ(other.get_string_ref(kText), published);
}

TEST(Threads, AMessageMayEndInAnotherThreadThanItBegan) {
  std::vector<message> many;
  for (int i = 0; i < 100; ++i) many.emplace_back(bytes("4d32 0500 0009 07"));
  std::thread([moved = std::move(many)]() mutable { moved.clear(); }).join();
}

TEST(Threads, OneObjectMayBeReadByManyWhileNobodyChangesIt) {
  const message shared = handedOver();
  std::atomic<unsigned int> right{0};
  std::vector<std::thread> threads;
  for (unsigned int t = 0; t < kThreads; ++t)
    threads.emplace_back([&shared, &right] {
      const message copy(shared);
      if (holdsObjects(shared, 0) && holdsValues(shared, 0) && holdsArrays(shared) && copy == shared) ++right;
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, kThreads);
}

TEST(Threads, WhatIsChangedThroughAReferenceIsNotInTheCopiesOfOthers) {
  message mine = built();
  std::string* const text = mine.get_string_ref(kText);
  std::atomic<unsigned int> right{0};
  std::vector<std::thread> threads;
  for (unsigned int t = 0; t < kThreads; ++t)
    threads.emplace_back([copy = mine, &right] {
      for (unsigned int i = 0; i < 100; ++i)
        if (holdsValues(copy, 0)) ++right;
    });
  for (unsigned int i = 1; i <= 100; ++i) *text = textOf(i);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, kThreads * 100);
  EXPECT_EQ(mine.get_string(kText, ""), textOf(100));
}

TEST(Threads, AReferenceLivesWhileItsMessageDoesWhateverBecomesOfCopies) {
  const message mine = built();
  const std::string* text = mine.get_string_ref(kText);
  std::vector<std::thread> threads;
  for (unsigned int t = 1; t <= kThreads; ++t)
    threads.emplace_back([copy = mine, t]() mutable {
      for (unsigned int i = 0; i < 100; ++i) {
        changeTo(copy, t);
        *copy.get_string_ref(kText) = "other";
        copy = message();
      }
    });
  for (unsigned int i = 0; i < 100; ++i) EXPECT_EQ(*text, textOf(0));
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(mine.get_string_ref(kText), text);
}

// The lines of a message with a nested one on a Dumper.
std::string dumped(const message& m) {
  std::array<char, 4000> text{};
  kl::Dumper out(text.data(), text.size());
  m.dump2(out, "", 0);
  return {out.data(), out.used()};
}

TEST(Threads, OfTwoDumpsOnDumpersOneMayLackNestedFields) {
  constexpr unsigned int kDumps = 3000;
  message shared;
  shared.insert_u32(kNumber, 7);
  shared.insert_message(kNested, nestedOf(7));
  const std::string whole = dumped(shared);
  ASSERT_NE(whole.find(textOf(7)), std::string::npos);
  std::atomic<unsigned int> right{0};
  std::vector<std::thread> threads;
  for (unsigned int t = 0; t < kThreads; ++t)
    threads.emplace_back([copy = shared, &whole, &right] {
      for (unsigned int i = 0; i < kDumps; ++i) {
        const std::string text = dumped(copy);
        if (text == whole || text.find("--- no room for a message of ") != std::string::npos) ++right;
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, kThreads * kDumps);
  EXPECT_EQ(dumped(shared), whole);
}

}  // namespace
