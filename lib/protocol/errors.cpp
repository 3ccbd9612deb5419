// Error replies and their texts.
//
//     code       text given   description
//     0xfe0003   ""           std failure: not implemented (3)
//     0xfe0003   "no disk"    no disk (3)
//     0xff0005   ""           sys failure: 5
//     0x120007   ""           undefined failure: 7

#include <iterator>
#include <string>

#include "base/report.h"
#include "kl/conventions.h"

namespace kl {
namespace {

// By the number of a code in the std name space.  Number 8 has no meaning; the table keeps its place.
constexpr const char* kErrorTexts[] = {
    "no error", "unknown error",  "broken path", "not implemented", "unknown id",      "missing fields",
    "failed",   "already exists", "???",         "not allowed",     "message too big", "unknown next id",
    "busy",     "timeout",
};
static_assert(std::size(kErrorTexts) == (ERROR_TIMEOUT & 0xffff) + 1, "a text for every code");

unsigned int nameSpaceOf(unsigned int code) { return code >> 16 & 0xff; }

unsigned int numberOf(unsigned int code) { return code & 0xffff; }

const char* nameSpaceWord(unsigned int nameSpace) {
  switch (nameSpace) {
    case 0x00: return "global";
    case 0xfd: return "local";
    case 0xfe: return "std";
    case 0xff: return "sys";
    default: return "undefined";
  }
}

bool hasText(unsigned int code) {
  return nameSpaceOf(code) == 0xfe && numberOf(code) < std::size(kErrorTexts);
}

}  // namespace

message errorMsg(unsigned int code, const std::string& text) {
  message error;
  error.insert(SYS_STATUS, STATUS_ERROR);
  error.insert(SYS_ERRNO, code);
  if (!text.empty()) error.insert(SYS_ERRSTR, text);
  return error;
}

message ctrlErrorMsg(unsigned int n) {
  return errorMsg(ERROR_FAILED, "control message (" + decimal(static_cast<int>(n)) + ")");
}

bool isError(const message& msg, unsigned int* code, std::string* text) {
  if (msg.get(SYS_STATUS, STATUS_OK) != STATUS_ERROR) return false;
  if (code) *code = msg.get(SYS_ERRNO, ERROR_UNKNOWN);
  if (text) *text = msg.get(SYS_ERRSTR, "");
  return true;
}

std::string getError(const message& msg) {
  unsigned int code = ERROR_OK;
  std::string text;
  if (!isError(msg, &code, &text)) return "ok";
  return getErrorDescr(code, text);
}

std::string getErrorDescr(unsigned int code, const std::string& text) {
  const std::string number = decimal(numberOf(code));
  if (!text.empty()) return text + " (" + number + ")";
  const std::string prefix = std::string(nameSpaceWord(nameSpaceOf(code))) + " failure:";
  if (hasText(code)) return prefix + " " + kErrorTexts[numberOf(code)] + " (" + number + ")";
  return prefix + " " + number;
}

}  // namespace kl
