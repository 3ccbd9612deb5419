#include "services/loader/crashes/secrets.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "kl/conventions.h"
#include "kl/message.h"

namespace {

using loader::maskSecrets;

std::string textOf(const kl::message& m) {
  std::ostringstream out;
  m.dump2(out, "", 0);
  return out.str();
}

TEST(Secrets, AFieldIsCalledAsInTheTextOfAMessage) {
  kl::message m;
  for (const unsigned int id : {0x20000007u, 0x20fd0008u, 0x2000000au}) {
    m.insert_string(id, "x");
    EXPECT_NE(textOf(m).find(" string [" + loader::nameInReport(id) + "]=x\n"), std::string::npos)
        << textOf(m);
  }
}

TEST(Secrets, OnlyTheValuesOfSecretFieldsAreMasked) {
  kl::message m;
  m.insert_u32(0x08000001, 5);
  m.insert_string(0x20000007, "hidden");
  m.insert_string(0x20000008, "shown");
  const std::string masked = maskSecrets("x\n" + textOf(m) + "\n\n", {"global(7)"});
  EXPECT_EQ(masked.find("hidden"), std::string::npos);
  EXPECT_NE(masked.find(" string [global(7)]=(secret)\n"), std::string::npos);
  EXPECT_NE(masked.find(" string [global(8)]=shown\n"), std::string::npos);
  EXPECT_EQ(maskSecrets(textOf(m), {}), textOf(m));
}

TEST(Secrets, AValueOfSeveralLinesAndAMessageGoWithEverythingInThem) {
  kl::message inner;
  inner.insert_string(0x20000001, "deep");
  kl::message m;
  m.insert_string(0x20000007, "first\nsecond\n\nthird");
  m.insert_message(0x28000009, inner.flattened());
  m.insert_string(0x20000008, "shown");
  const std::string masked = maskSecrets(textOf(m), {"global(7)", "global(9)"});
  for (const char* const word : {"first", "second", "third", "deep"})
    EXPECT_EQ(masked.find(word), std::string::npos) << masked;
  EXPECT_NE(masked.find("shown"), std::string::npos) << masked;
}

TEST(Secrets, InMessagesInsideTheyAreMaskedAsWell) {
  kl::message inner;
  inner.insert_string(0x20000007, "hidden");
  inner.insert_string(0x20000008, "shown");
  kl::message m;
  m.insert_message(0x28000009, inner.flattened());
  const std::string masked = maskSecrets(textOf(m), {"global(7)"});
  EXPECT_EQ(masked.find("hidden"), std::string::npos);
  EXPECT_NE(masked.find("shown"), std::string::npos);
}

TEST(Secrets, AValueThatTheReportHasCutIsMaskedToTheEnd) {
  EXPECT_EQ(maskSecrets(" string [global(7)]=hid", {"global(7)"}), " string [global(7)]=(secret)\n");
}

TEST(Secrets, TheSendersOfMessagesAreKnown) {
  EXPECT_EQ(loader::sendersIn(" u32[] [SYS_FROM]=0x00000020, 0x00000001, \n u32[] [SYS_FROM]=0x00000021, \n"),
            (std::set<unsigned int>{0x20, 0x21}));
}

}  // namespace
