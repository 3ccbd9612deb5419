// The text of a message has one line a field, indented by four spaces for each message that it lies in:
//
//     --- kl::message --------
//      string [global(7)]=hidden
//      message [global(8)]...
//         --- kl::message --------
//          u32 [global(1)]=1 0x1 0.0.0.1
//         ------------------------
//     ------------------------
//
// A value may have lines of its own, and a message always has, so what follows a secret is left out up to the next line
// of the message that the secret lies in.

#include "crashes/secrets.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace loader {
namespace {

constexpr std::string_view kMask = "(secret)\n";
constexpr std::string_view kSender = " u32[] [SYS_FROM]=0x";
constexpr std::string_view kRule = "---";
constexpr std::array<std::string_view, 14> kTypes{"bool",      "u32",   "string",  "message", "raw",
                                                  "addr6",     "u64",   "bool[]",  "u32[]",   "string[]",
                                                  "message[]", "raw[]", "addr6[]", "u64[]"};

// One line of a message; the name is empty where it is none.
struct FieldLine {
  std::size_t indent = 0;  // of the message
  std::string_view name;
  std::string_view head;  // up to the value
};

std::size_t indentOf(std::string_view line) { return std::min(line.find_first_not_of(' '), line.size()); }

FieldLine readField(std::string_view line) {
  const std::size_t spaces = indentOf(line);
  if (spaces % 4 != 1) return {};
  const std::size_t typeEnd = line.find(" [", spaces);
  if (typeEnd == std::string_view::npos) return {};
  const std::string_view type = line.substr(spaces, typeEnd - spaces);
  const std::size_t nameEnd = line.find(']', typeEnd);
  if (nameEnd == std::string_view::npos || std::find(kTypes.begin(), kTypes.end(), type) == kTypes.end())
    return {};
  return {spaces - 1, line.substr(typeEnd + 2, nameEnd - typeEnd - 2),
          line.substr(0, std::min(nameEnd + 2, line.size()))};
}

bool endsSecret(std::string_view line, std::size_t indent) {
  const std::size_t spaces = indentOf(line);
  if (spaces == indent && line.substr(spaces).starts_with(kRule)) return true;
  const FieldLine field = readField(line);
  return !field.name.empty() && field.indent == indent;
}

std::string_view takeLine(std::string_view& text) {
  const std::string_view line = text.substr(0, text.find('\n'));
  text.remove_prefix(std::min(line.size() + 1, text.size()));
  return line;
}

}  // namespace

std::string nameInReport(unsigned int field) {
  const unsigned int space = field >> 16 & 0xff;
  const char* const word = space == 0      ? "global"
                           : space == 0xfd ? "local"
                           : space == 0xfe ? "std"
                           : space == 0xff ? "sys"
                                           : "ns";
  return word + ("(" + std::to_string(field & 0xffff) + ")");
}

std::set<unsigned int> sendersIn(std::string_view report) {
  std::set<unsigned int> senders;
  for (std::size_t at = 0; (at = report.find(kSender, at)) != std::string_view::npos;) {
    at += kSender.size();
    unsigned int id = 0;
    (void)std::from_chars(report.data() + at, report.data() + report.size(), id, 16);
    senders.insert(id);
  }
  return senders;
}

std::string maskSecrets(std::string_view report, const std::set<std::string>& names) {
  std::string masked;
  bool isInSecret = false;
  std::size_t indent = 0;
  while (!report.empty()) {
    const bool isWhole = report.find('\n') != std::string_view::npos;
    const std::string_view line = takeLine(report);
    if (isInSecret && !endsSecret(line, indent)) continue;
    const FieldLine field = readField(line);
    isInSecret = !field.name.empty() && names.contains(std::string(field.name));
    indent = field.indent;
    if (isInSecret) (masked += field.head) += kMask;
    else (masked += line) += isWhole ? "\n" : "";
  }
  return masked;
}

}  // namespace loader
