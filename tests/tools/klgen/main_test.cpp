#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "services/common/configuration_file.h"
#include "services/describe/json.h"
#include "tests/tools/klgen/described.h"
#include "tools/klgen/dissector.h"
#include "tools/klgen/header.h"
#include "tools/klgen/pages.h"

namespace klgen {
namespace {

struct Ended {
  int status = -1;
  std::string text;  // of both streams
};

class KlgenProgram : public testing::Test {
 protected:
  KlgenProgram() {
    char name[] = "/tmp/klgen-XXXXXX";
    folder_ = ::mkdtemp(name);
  }
  ~KlgenProgram() override { (void)ran("rm -rf " + folder_); }

  Ended ran(const std::string& command) {
    Ended ended;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    char part[4096];
    for (std::size_t n = 0; (n = ::fread(part, 1, sizeof part, pipe)) > 0;) ended.text.append(part, n);
    ended.status = WEXITSTATUS(::pclose(pipe));
    return ended;
  }
  Ended klgen(const std::string& words) { return ran("cd " + folder_ + " && " KL_BIN_DIR "/klgen " + words); }
  void write(const std::string& name, const std::string& text) {
    std::ofstream(folder_ + "/" + name) << text;
  }
  std::string contents(const std::string& name) {
    common::Mistakes mistakes;
    return common::readFile(folder_ + "/" + name, mistakes).value_or("none");
  }

  std::string folder_;
};

const std::string kSample = KL_SOURCE_DIR "/tests/tools/klgen/sample.toml";

}  // namespace

TEST_F(KlgenProgram, EachFormGoesToTheStandardOutput) {
  common::Mistakes none;
  EXPECT_EQ(klgen("header " + kSample).text, headerOf(sample(), "sample.toml", none));
  EXPECT_EQ(klgen("json " + kSample).text, jsonOf(sample()));
  EXPECT_EQ(klgen("markdown " + kSample).text, markdownOf(sample()));
  EXPECT_EQ(klgen("man " + kSample).text, manPageOf(sample()));
  EXPECT_EQ(klgen("dissector " + kSample).text, dissectorOf({sample()}));
}

TEST_F(KlgenProgram, ADissectorIsOfServicesThatCanBeToldApart) {
  write("one.toml", "[service]\nname = \"one\"\nid = 300\n");
  write("two.toml", "[service]\nname = \"two\"\nid = 300\n");
  const Ended ended = klgen("dissector one.toml two.toml");
  EXPECT_EQ(ended.status, 2);
  EXPECT_EQ(ended.text, "klgen: two.toml: the number of two is that of one\n");
}

TEST_F(KlgenProgram, AFileThatIsRightAlreadyIsNotWrittenAgain) {
  EXPECT_EQ(klgen("json " + kSample + " -o out.json").status, 0);
  EXPECT_EQ(contents("out.json"), jsonOf(sample()));
  const auto changed = [this] {
    struct stat about = {};
    EXPECT_EQ(::stat((folder_ + "/out.json").c_str(), &about), 0);
    return about.st_mtime;
  };
  ASSERT_EQ(ran("touch -d 2001-01-01 " + folder_ + "/out.json").status, 0);
  const auto before = changed();
  EXPECT_EQ(klgen("json " + kSample + " -o out.json").status, 0);
  EXPECT_EQ(changed(), before);
  EXPECT_EQ(klgen("markdown " + kSample + " -o out.json").status, 0);
  EXPECT_EQ(contents("out.json"), markdownOf(sample()));
}

TEST_F(KlgenProgram, NothingIsMadeOfADescriptionWithMistakes) {
  write("bad.toml",
        "fields = [\n{ name = \"a\", field = \"u33:1\" },\n{ name = \"b\", feld = \"u32:1\" }]\n");
  for (const char* form : {"header", "json", "markdown", "man", "dissector", "check"}) {
    const Ended ended =
        klgen(std::string(form) + " bad.toml" + (form == std::string("check") ? "" : " -o out"));
    EXPECT_EQ(ended.status, 2) << form;
    EXPECT_TRUE(
        ended.text.starts_with("klgen: bad.toml:2: expected a field like \"u32:5\" or \"string[]:std.9\", "
                               "not \"u33:1\"\nklgen: bad.toml:3: "))
        << ended.text;
  }
  EXPECT_EQ(contents("out"), "none");
}

TEST_F(KlgenProgram, WhatDoesNotFitTogetherIsAMistake) {
  write("bad.toml", "fields = [{ name = \"a\", field = \"u32:1\" }, { name = \"a\", field = \"u32:2\" }]\n");
  const Ended ended = klgen("check bad.toml");
  EXPECT_EQ(ended.status, 2);
  EXPECT_EQ(ended.text, "klgen: bad.toml:1: the field \"a\" is there already\n");
}

TEST_F(KlgenProgram, ChecksAgainstAnOlderOneAtALevel) {
  write("old.toml", "fields = [{ name = \"a\", field = \"u32:1\" }, { name = \"b\", field = \"u32:2\" }]\n");
  write("renamed.toml",
        "fields = [{ name = \"a\", field = \"u32:1\" }, { name = \"c\", field = \"u32:2\" }]\n");
  write("gone.toml", "fields = [{ name = \"a\", field = \"u32:1\" }]\n");
  EXPECT_EQ(klgen("check old.toml --against old.toml").status, 0);
  EXPECT_EQ(klgen("check renamed.toml --against old.toml").status, 0);
  EXPECT_EQ(klgen("check renamed.toml --against old.toml --level wire").status, 0);
  EXPECT_EQ(klgen("check renamed.toml --against old.toml --level source").status, 1);
  EXPECT_EQ(klgen("check gone.toml --against old.toml").status, 1);
  const Ended gone = klgen("check gone.toml --against old.toml --level source");
  EXPECT_EQ(gone.status, 1);
  EXPECT_NE(gone.text.find("klgen: gone.toml:1: wire: \"b\" is gone, and its number is not reserved\n"),
            std::string::npos)
      << gone.text;
}

TEST_F(KlgenProgram, WhatCannotBeReadOrWrittenIsSaid) {
  EXPECT_EQ(klgen("check nowhere.toml").status, 2);
  EXPECT_EQ(klgen("check " + kSample + " --against nowhere.toml").status, 2);
  const Ended ended = klgen("json " + kSample + " -o no/such/folder");
  EXPECT_EQ(ended.status, 1);
  EXPECT_EQ(ended.text, "klgen: cannot write no/such/folder\n");
  EXPECT_EQ(klgen("json " + kSample + " > /dev/full").status, 1);
}

TEST_F(KlgenProgram, MistakesInTheCommandLineHaveStatus2) {
  EXPECT_EQ(klgen("").status, 2);
  EXPECT_EQ(klgen("explode " + kSample).status, 2);
  EXPECT_EQ(klgen("check " + kSample + " --against x --level none").status, 2);
  EXPECT_EQ(klgen("--version").status, 0);
  EXPECT_EQ(klgen("--help").status, 0);
}

}  // namespace klgen
