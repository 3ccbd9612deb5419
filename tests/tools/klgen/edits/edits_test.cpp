// Random edits of descriptions: klgen check says what programs of both versions notice.  scripts/edits judges more of them.

#include "tests/tools/klgen/edits/edits.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <set>

#include "tests/tools/klgen/described.h"
#include "tests/tools/klgen/edits/judge.h"
#include "tests/tools/klgen/edits/pairs.h"
#include "tests/tools/klgen/edits/peers.h"
#include "tools/klgen/against.h"

namespace edits {

TEST(JudgedEdits, BreakWhatProgramsMisunderstand) {
  const std::vector<Pair> pairs = randomPairs(1, 200);
  EXPECT_EQ(differencesOnTheWire(pairs), "");
  std::set<Verdict> verdicts;
  for (const Pair& pair : pairs) verdicts.insert(verdictOf(pair));
  EXPECT_EQ(verdicts.size(), 3u);
}

TEST(JudgedEdits, TheJudgeNoticesWhatIsMisread) {
  using klgen::described;
  const auto field = [](const std::string& rest) { return "fields = [{ name = \"a\", " + rest + " }]\n"; };
  const auto fault = [&](const std::string& older, const std::string& newer) {
    return misunderstanding(described(field(older)), described(field(newer)));
  };
  EXPECT_EQ(fault("field = \"u32:1\"", "field = \"u32:1\", doc = \"x\""), "");
  EXPECT_TRUE(fault("field = \"u32:1\"", "field = \"u32:2\"").starts_with("a is taken for come_"));
  EXPECT_EQ(fault("field = \"u32:1\", unit = \"s\"", "field = \"u32:1\", unit = \"ms\""),
            "a has another unit");
  EXPECT_EQ(fault("field = \"u32:1\"", "field = \"u32:1\", max = 5"), "a is refused");
  EXPECT_EQ(fault("field = \"u32:1\"", "field = \"u32:1\", required = true"),
            "the newer one reads a, which nobody sent");
  EXPECT_TRUE(fault("field = \"u32:1\", values = { on = 1 }", "field = \"u32:1\"")
                  .starts_with("on is taken for come_"));
}

TEST(JudgedEdits, RealVersionsExchangeMessages) {
  Random random(1);
  EXPECT_EQ(differenceOfPeers(random, 500), "");
  common::Mistakes mistakes;
  const auto next = describe::readFile(KL_SOURCE_DIR "/tests/tools/klgen/sample_next.toml",
                                       describe::OtherKeys::kRefused, mistakes);
  for (const klgen::Break& found : klgen::breaksOf(klgen::sample(), next))
    EXPECT_EQ(found.level, klgen::Level::kSource) << found.text;
}

// A compiler has no emulator to run in.
#ifndef KL_EMULATED
TEST(JudgedEdits, BreakTheSourcesThatACompilerRefuses) {
  char name[] = "/tmp/klgen-edits-XXXXXX";
  const std::string folder = ::mkdtemp(name);
  const std::vector<Pair> pairs = randomPairs(2, 40);
  writePrograms(pairs, folder, static_cast<unsigned int>(pairs.size()));
  FILE* pipe = ::popen(
      (KL_COMPILER " -std=c++20 -fsyntax-only -I " KL_SOURCE_DIR "/include " + folder + "/source_0.cpp 2>&1")
          .c_str(),
      "r");
  std::string errors;
  char part[4096];
  for (std::size_t n = 0; (n = ::fread(part, 1, sizeof part, pipe)) > 0;) errors.append(part, n);
  (void)::pclose(pipe);
  EXPECT_NE(errors.find("pair_"), std::string::npos) << errors;
  EXPECT_EQ(differencesOfSources(pairs, errors), "") << errors;
  std::filesystem::remove_all(folder);
}
#endif

}  // namespace edits
