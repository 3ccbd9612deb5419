#include "services/loader/crashes/report_catcher.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using loader::Caught;
using loader::ReportCatcher;

const std::string kHeadLine = "--- signal=11 --------------------------------------------\n";
const std::string kWholeReport = "/usr/sbin/leases\n" + kHeadLine + "\nrip=0x00000001\n\n\n";

// The output that passes when the text comes in pieces of this size.
std::string inPieces(ReportCatcher& catcher, const std::string& text, std::size_t size) {
  std::string passed;
  for (std::size_t at = 0; at < text.size(); at += size) passed += catcher.take(text.substr(at, size));
  return passed;
}

TEST(ReportCatcher, OrdinaryOutputPassesAtOnceWhetherLinesAreWholeOrNot) {
  ReportCatcher catcher;
  EXPECT_EQ(catcher.take("one\ntw"), "one\ntw");
  EXPECT_EQ(catcher.take("o"), "o");
  EXPECT_EQ(catcher.take("\n--- x\n"), "\n--- x\n");
  EXPECT_EQ(catcher.end().rest, "");
}

TEST(ReportCatcher, AReportIsKeptWithTheLineThatNamesTheProgram) {
  ReportCatcher catcher;
  EXPECT_EQ(catcher.take("before\n" + kWholeReport), "before\n");
  const Caught caught = catcher.end();
  EXPECT_EQ(caught.report, kWholeReport);
  EXPECT_EQ(caught.signal, 11u);
  EXPECT_EQ(catcher.take("another process\n"), "another process\n");
}

// A line that was there before its successor could be seen has passed; the report has it all the same.
TEST(ReportCatcher, InWhateverPiecesItComesTheReportIsTheSame) {
  for (std::size_t size = 1; size <= kWholeReport.size(); ++size) {
    ReportCatcher catcher;
    const std::string passed = inPieces(catcher, "before\n" + kWholeReport, size);
    EXPECT_EQ(catcher.end().report, kWholeReport) << size;
    EXPECT_EQ(passed.find("signal"), std::string::npos) << size;
    EXPECT_TRUE(passed.starts_with("before\n")) << passed;
  }
}

TEST(ReportCatcher, WhateverFollowsUntilTheEndOfTheProcessBelongsToIt) {
  ReportCatcher catcher;
  EXPECT_EQ(catcher.take(kWholeReport), "");
  EXPECT_EQ(catcher.take("died with signal 11 on Sat Nov 21 06:29:44 2026\nsecret\n"), "");
  EXPECT_TRUE(catcher.end().report.ends_with("secret\n"));
}

TEST(ReportCatcher, AnAnswerToSigusr2IsNoCrash) {
  ReportCatcher catcher;
  const std::string asked =
      "/usr/sbin/leases\n--- signal=12 --------------------------------------------\n\n";
  EXPECT_EQ(inPieces(catcher, asked, 7), asked);
  EXPECT_EQ(catcher.end().report, "");
}

TEST(ReportCatcher, ALineThatOnlyBeginsLikeThatOfASignalPasses) {
  for (const std::string line :
       {"--- signal=\n", "--- signal=11\n", "--- signal=1111 ---\n", "--- signal=x ---\n",
        " --- signal=11 --------------------------------------------\n",
        "--- signal=11 --------------------------------------------x\n"}) {
    ReportCatcher catcher;
    EXPECT_EQ(inPieces(catcher, "a\n" + line + "b", 3) + catcher.end().rest, "a\n" + line + "b");
  }
}

TEST(ReportCatcher, WhatWaitsAtTheEndIsOrdinaryOutput) {
  ReportCatcher catcher;
  EXPECT_EQ(catcher.take("a\nb\n--- sig"), "a\n");
  const Caught caught = catcher.end();
  EXPECT_EQ(caught.rest, "b\n--- sig");
  EXPECT_EQ(caught.report, "");
}

TEST(ReportCatcher, OneThatGrowsTooLongPassesAndIsNone) {
  ReportCatcher catcher;
  const std::string flood(ReportCatcher::kMostBytes, 'x');
  EXPECT_EQ(catcher.take(kWholeReport), "");
  EXPECT_EQ(catcher.take(flood), kWholeReport + flood);
  EXPECT_EQ(catcher.take("y"), "y");
  const Caught caught = catcher.end();
  EXPECT_EQ(caught.report, "");
  EXPECT_EQ(caught.signal, 0u);
}

// Where the report went to the device there is only this line.
TEST(ReportCatcher, TheLastLineOfAProcessNamesItsSignal) {
  ReportCatcher catcher;
  const std::string line = "died with signal 6 on Sat Nov 21 06:29:44 2026\n";
  EXPECT_EQ(inPieces(catcher, "x\n" + line, 4), "x\n" + line);
  const Caught caught = catcher.end();
  EXPECT_EQ(caught.signal, 6u);
  EXPECT_EQ(caught.report, "");
}

}  // namespace
