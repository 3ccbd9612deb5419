#include "kl/backtrace.h"

#include <gtest/gtest.h>

#include <string>

#include "kl/message.h"

namespace kl {
namespace {

class Note : public BacktraceInfo {
 public:
  void dump(Dumper& out) override { out << "note"; }
};

TEST(Backtrace, TheYoungestRecordIsTheHead) {
  EXPECT_EQ(backtraceInfoHead, nullptr);
  {
    Note first;
    EXPECT_EQ(backtraceInfoHead, &first);
    EXPECT_EQ(first.next(), nullptr);
    {
      Note second;
      EXPECT_EQ(backtraceInfoHead, &second);
      EXPECT_EQ(second.next(), &first);
    }
    EXPECT_EQ(backtraceInfoHead, &first);
  }
  EXPECT_EQ(backtraceInfoHead, nullptr);
}

TEST(Backtrace, AMessageRecordWritesItsLabelAndTheMessage) {
  message m;
  m.insert_u32(0x08FF0007, 0xFE0004);
  MessageBacktraceInfo record("void somewhere()", m);
  char text[400];
  Dumper out(text, sizeof text);
  record.dump(out);
  char expected[400];
  Dumper reference(expected, sizeof expected);
  reference << "void somewhere()\n";
  m.dump2(reference, "", 0);
  EXPECT_EQ(std::string(text, out.used()), std::string(expected, reference.used()));
  EXPECT_EQ(std::string(text, 17), "void somewhere()\n");
}

}  // namespace
}  // namespace kl
