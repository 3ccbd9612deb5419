// Error replies and their texts.

#include <gtest/gtest.h>

#include <string>

#include "kl/conventions.h"

namespace kl {
namespace {

TEST(Errors, EveryCodeOfTheTableHasItsText) {
  EXPECT_EQ(getErrorDescr(0xfe0000, ""), "std failure: no error (0)");
  EXPECT_EQ(getErrorDescr(ERROR_UNKNOWN, ""), "std failure: unknown error (1)");
  EXPECT_EQ(getErrorDescr(ERROR_BRKPATH, ""), "std failure: broken path (2)");
  EXPECT_EQ(getErrorDescr(ERROR_NOTIMP, ""), "std failure: not implemented (3)");
  EXPECT_EQ(getErrorDescr(ERROR_UNKNOWNID, ""), "std failure: unknown id (4)");
  EXPECT_EQ(getErrorDescr(ERROR_MISSING, ""), "std failure: missing fields (5)");
  EXPECT_EQ(getErrorDescr(ERROR_FAILED, ""), "std failure: failed (6)");
  EXPECT_EQ(getErrorDescr(ERROR_EXISTS, ""), "std failure: already exists (7)");
  EXPECT_EQ(getErrorDescr(0xfe0008, ""), "std failure: ??? (8)");
  EXPECT_EQ(getErrorDescr(ERROR_NOTALLOWED, ""), "std failure: not allowed (9)");
  EXPECT_EQ(getErrorDescr(ERROR_TOOBIG, ""), "std failure: message too big (10)");
  EXPECT_EQ(getErrorDescr(ERROR_UNKNOWNNEXTID, ""), "std failure: unknown next id (11)");
  EXPECT_EQ(getErrorDescr(ERROR_BUSY, ""), "std failure: busy (12)");
  EXPECT_EQ(getErrorDescr(ERROR_TIMEOUT, ""), "std failure: timeout (13)");
}

TEST(Errors, ACodeBehindTheTableIsDescribedByItsNumber) {
  EXPECT_EQ(getErrorDescr(0xfe000e, ""), "std failure: 14");
  EXPECT_EQ(getErrorDescr(0xfeffff, ""), "std failure: 65535");
}

TEST(Errors, ACodeOfAnotherNameSpaceIsDescribedByItsNumber) {
  EXPECT_EQ(getErrorDescr(ERROR_OK, ""), "global failure: 0");
  EXPECT_EQ(getErrorDescr(0xff0005, ""), "sys failure: 5");
  EXPECT_EQ(getErrorDescr(0xfd0001, ""), "local failure: 1");
  EXPECT_EQ(getErrorDescr(0x120007, ""), "undefined failure: 7");
}

TEST(Errors, BitsAboveTheNameSpaceDoNotCount) {
  EXPECT_EQ(getErrorDescr(0xabfe0003, ""), "std failure: not implemented (3)");
}

TEST(Errors, ATextReplacesTheWords) {
  EXPECT_EQ(getErrorDescr(ERROR_NOTIMP, "no disk"), "no disk (3)");
  EXPECT_EQ(getErrorDescr(0x120007, "x"), "x (7)");
}

TEST(Errors, AnErrorWithoutTextHoldsNoTextField) {
  message expected;
  expected.insert(SYS_STATUS, STATUS_ERROR);
  expected.insert(SYS_ERRNO, ERROR_BUSY);
  EXPECT_EQ(errorMsg(ERROR_BUSY, ""), expected);
  expected.insert(SYS_ERRSTR, "later");
  EXPECT_EQ(errorMsg(ERROR_BUSY, "later"), expected);
}

TEST(Errors, AControlMessageAsErrorNamesItsCode) {
  EXPECT_EQ(ctrlErrorMsg(1), errorMsg(ERROR_FAILED, "control message (1)"));
  EXPECT_EQ(ctrlErrorMsg(0xffffffff), errorMsg(ERROR_FAILED, "control message (-1)"));
}

TEST(Errors, AMessageWithoutStatusIsNoErrorAlsoWithAnErrorCode) {
  message m;
  EXPECT_EQ(getError(m), "ok");
  m.insert(SYS_ERRNO, ERROR_BUSY);
  EXPECT_FALSE(isError(m));
  EXPECT_EQ(getError(m), "ok");
  m.insert(SYS_STATUS, STATUS_OK);
  EXPECT_EQ(getError(m), "ok");
}

TEST(Errors, AnErrorWithoutCodeIsUnknown) {
  message m;
  m.insert(SYS_STATUS, STATUS_ERROR);
  unsigned int code = 0;
  std::string text = "before";
  EXPECT_TRUE(isError(m, &code, &text));
  EXPECT_EQ(code, ERROR_UNKNOWN);
  EXPECT_EQ(text, "");
  EXPECT_EQ(getError(m), "std failure: unknown error (1)");
}

TEST(Errors, IsErrorLeavesTheResultsAloneWhereThereIsNone) {
  unsigned int code = 77;
  std::string text = "before";
  EXPECT_FALSE(isError(message(), &code, &text));
  EXPECT_EQ(code, 77u);
  EXPECT_EQ(text, "before");
}

TEST(Errors, IsErrorTakesNullPointers) {
  EXPECT_TRUE(isError(errorMsg(ERROR_BUSY, "x"), nullptr, nullptr));
  unsigned int code = 0;
  EXPECT_TRUE(isError(errorMsg(ERROR_BUSY, "x"), &code, nullptr));
  EXPECT_EQ(code, ERROR_BUSY);
}

TEST(Errors, GetErrorDescribesCodeAndText) {
  EXPECT_EQ(getError(errorMsg(ERROR_TIMEOUT, "")), "std failure: timeout (13)");
  EXPECT_EQ(getError(errorMsg(ERROR_FAILED, "disk full")), "disk full (6)");
}

}  // namespace
}  // namespace kl
