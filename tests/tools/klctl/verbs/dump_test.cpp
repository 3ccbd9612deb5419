#include "tools/klctl/verbs/dump.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "kl/utilities.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/hostile_text.h"
#include "tests/tools/klctl/recorded_channels.h"
#include "tools/klctl/values/json.h"

namespace klctl {
namespace {

class DumpVerb : public testing::Test {
 protected:
  ~DumpVerb() override { ::unlink(path_.c_str()); }

  void write(const std::string& bytes) const { std::ofstream(path_, std::ios::binary) << bytes; }

  std::string run(std::vector<const char*> words) {
    words.insert(words.begin(), {"dump", path_.c_str()});
    return channels_.perform(parsed(words));
  }

  RecordedChannels channels_;

 private:
  const std::string path_ = kl::underRoot("/kelo/dump");  // nobody else sees this root
};

const std::string kMessage("M2\x05\0\0\x09\x07", 7);
const std::string kFrame = std::string("\x07\0\0\0", 4) + kMessage;

}  // namespace

TEST_F(DumpVerb, EachMessageOfAFileHasItsPlace) {
  write(kFrame + kFrame);
  const std::string text = run({});
  EXPECT_NE(text.find("frame at byte 0\n--- kl::message"), std::string::npos) << text;
  EXPECT_NE(text.find("frame at byte 11\n--- kl::message"), std::string::npos) << text;
  const Json all = Json::parse(run({"--json"}));
  EXPECT_EQ(all[1].dump(), R"({"at":"frame at byte 11","message":{"u32:5":7}})");
}

TEST_F(DumpVerb, AFaultComesAfterTheMessagesThatAreWhole) {
  write(kFrame + kFrame.substr(0, 9));
  const Told told = failureOf([this] { (void)run({"--format", "framed"}); });
  EXPECT_EQ(told.status, 1);
  EXPECT_NE(told.sentence.find(": the file ends inside the frame at byte 11"), std::string::npos)
      << told.sentence;
  EXPECT_NE(channels_.printed.find("[global(5)]=7"), std::string::npos) << channels_.printed;
}

TEST_F(DumpVerb, AMessageCannotSteerTheTerminal) {
  kl::message m;
  m.insert_string(0x20000005, kHostile);
  std::vector<unsigned char> bytes;
  m.flatten(bytes);
  write({bytes.begin(), bytes.end()});
  EXPECT_NE(run({}).find(kHarmless), std::string::npos);
}

TEST_F(DumpVerb, AFileThatCannotBeReadIsUsage) {
  EXPECT_EQ(failureOf([this] { (void)run({}); }).status, 2);
}

}  // namespace klctl
