#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kl/conventions.h"
#include "tests/support/process/child.h"

namespace {

using kl::test::ChildResult;
using kl::test::runProgram;

using FileBytes = std::vector<unsigned char>;

// Every test has a file of its own: all of the machine share the folder, and each numbers its processes anew.
ChildResult peekInto(const FileBytes& bytes) {
  char file[] = "/tmp/peeked_XXXXXX";
  const int fd = ::mkstemp(file);
  EXPECT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  ::close(fd);
  const ChildResult result = runProgram({KL_BIN_DIR "/peek", file});
  ::unlink(file);
  return result;
}

kl::message withId(unsigned int id) {
  kl::message m;
  m.insert(kl::STD_ID, id);
  return m;
}

}  // namespace

TEST(Peek, PrintsFieldsAndTexts) {
  kl::message m;
  m.insert(kl::SYS_CMD, kl::CMD_GETALL);
  m.insert(kl::SYS_TO, {7, 9});
  m.insert(kl::STD_OBJS, {withId(3).flattened(), withId(4).flattened()});
  m.insert_string(0x20000001, "ab");
  const ChildResult result = peekInto(m.flattened());
  EXPECT_EQ(result.out, "command " + std::to_string(kl::CMD_GETALL) +
                            "\nto 7\nto 9\nobject 3, 1 fields\nobject 4, 1 fields\ntext ab\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.exitStatus, 0);
}

TEST(Peek, ShowsWhatStandsBeforeAFault) {
  const ChildResult result = peekInto({0x4d, 0x32, 1, 0, 0, 0x21, 2, 'a', 'b', 5, 0, 0});
  EXPECT_EQ(result.out, "command " + std::to_string(kl::CMD_NOOP) + "\ntext ab\n");
  EXPECT_EQ(result.err, "peek: not a whole message: 1 records were read\n");
  EXPECT_EQ(result.exitStatus, 1);
}
