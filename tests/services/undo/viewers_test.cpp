#include "services/undo/viewers.h"

#include <gtest/gtest.h>

#include <optional>

#include "kl/conventions.h"

namespace undo {
namespace {

kl::message requestOf(const std::string& user, std::optional<unsigned int> rights) {
  kl::message m;
  m.insert(kl::SYS_USER, user);
  if (rights) m.insert(kl::SYS_POLICY, *rights);
  return m;
}

// The record that the library keeps of a subscription.
kl::message kept(const kl::message& request) {
  kl::message record = withViewer(request);
  kl::cleanSys(record);
  return record;
}

}  // namespace

TEST(UndoViewer, WhoMayReadSeesTheRecordsThatNameHim) {
  const kl::message request = requestOf("bob", kl::RIGHT_READ | kl::RIGHT_CHANGE | kl::RIGHT_CONTROL);
  for (const Viewer& viewer : {Viewer::of(request), Viewer::ofSubscription(kept(request))}) {
    EXPECT_TRUE(viewer.sees("bob"));
    EXPECT_FALSE(viewer.sees("alice"));
    EXPECT_FALSE(viewer.sees(""));
  }
}

TEST(UndoViewer, TheRightToContentsShowsEverything) {
  const kl::message request = requestOf("bob", kl::RIGHT_READ | kl::RIGHT_CONTENTS);
  for (const Viewer& viewer : {Viewer::of(request), Viewer::ofSubscription(kept(request))}) {
    EXPECT_TRUE(viewer.sees("alice"));
    EXPECT_TRUE(viewer.sees(""));
  }
}

TEST(UndoViewer, ARequestWithoutRightsIsRootsAndSeesEverything) {
  for (const kl::message& request : {kl::message(), requestOf("root", {})}) {
    EXPECT_TRUE(Viewer::of(request).sees("alice"));
    EXPECT_TRUE(Viewer::ofSubscription(kept(request)).sees("alice"));
  }
}

TEST(UndoViewer, AUserWithoutANameSeesNoRecordWithoutAName) {
  EXPECT_FALSE(Viewer::of(requestOf("", kl::RIGHT_READ)).sees(""));
}

// Every subscriber can put any field into the request.
TEST(UndoViewer, ASubscriptionCannotNameAnotherViewer) {
  kl::message forged = kept(requestOf("alice", kl::RIGHTS_ALL));
  forged.insert_u64(0x10fd0001, 1);
  forged.insert(kl::SYS_USER, "bob");
  forged.insert(kl::SYS_POLICY, kl::RIGHT_READ);
  EXPECT_EQ(kept(forged), kept(requestOf("bob", kl::RIGHT_READ)));
  EXPECT_FALSE(Viewer::ofSubscription(kept(forged)).sees("alice"));
}

TEST(UndoViewer, ASubscriptionOfNobodyShowsNothing) {
  EXPECT_FALSE(Viewer::ofSubscription(kl::message()).sees(""));
}

}  // namespace undo
