// Bytes from anywhere, read as a message, are written as text on a stream and on a Dumper.
//
//   - both texts begin with the banner and end with the rule, whatever the bytes are
//   - they are the same text, except that numbers are hexadecimal on a Dumper, and except for nested messages that
//     its fixed space has no room for, which it says
//   - a Dumper that is too small has the beginning of what a larger one has

#include <cstring>
#include <sstream>

#include "fuzz/input.h"
#include "kl/message.h"

namespace {

using fuzz::require;
using kl::message;

const std::string kPrefix = "> ";

std::string onStream(const message& m, unsigned int indent) {
  std::ostringstream out;
  m.dump2(out, kPrefix.c_str(), indent);
  return out.str();
}

std::string onDumper(const message& m, unsigned int indent, std::size_t capacity) {
  std::vector<char> room(capacity);
  kl::Dumper out(room.data(), static_cast<unsigned int>(capacity));
  m.dump2(out, kPrefix.c_str(), indent);
  return {out.data(), out.used()};
}

// Whether both texts go on with the same number, on the Dumper in `digits` hexadecimal digits; steps over it then.
bool stepOverNumber(const char*& stream, const char*& dumper, std::size_t digits) {
  if (std::strncmp(dumper, "0x", 2) != 0 || std::strncmp(stream, dumper, 2 + digits) == 0) return false;
  if (std::strspn(dumper + 2, "0123456789abcdef") < digits) return false;
  const std::string hex(dumper, 2 + digits);
  char* end = nullptr;
  const unsigned long long decimal = std::strtoull(stream, &end, 10);
  if (*stream < '0' || *stream > '9' || decimal != std::strtoull(hex.c_str(), nullptr, 16)) return false;
  stream = end;
  dumper += hex.size();
  return true;
}

// Texts without zero bytes.
bool agree(const std::string& streamText, const std::string& dumperText) {
  const char* stream = streamText.c_str();
  const char* dumper = dumperText.c_str();
  while (*stream != 0 && *dumper != 0) {
    if (stepOverNumber(stream, dumper, 16) || stepOverNumber(stream, dumper, 8)) continue;
    if (*stream++ != *dumper++) return false;
  }
  return *stream == *dumper;
}

template <class Part>
bool contains(const std::string& text, Part part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, std::min<std::size_t>(size, 4096));
  const unsigned int indent = input.upTo(2);
  const std::size_t capacity = input.upTo(300);
  const message m(input.rest());

  const std::string head = kPrefix + std::string(std::size_t{4} * indent, ' ');
  const std::string streamText = onStream(m, indent);
  require(streamText.starts_with(head + "--- kl::message --------\n"), "the text begins with the banner");
  require(streamText.ends_with(head + "------------------------\n"), "the text ends with the rule");

  const std::string dumperText = onDumper(m, indent, streamText.size() * 8 + 100);
  require(dumperText.starts_with(head + "--- kl::message --------\n"),
          "the Dumper's text begins with the banner");
  require(dumperText.ends_with(head + "------------------------\n"), "the Dumper's text ends with the rule");
  if (!contains(dumperText, "--- no room for ") && !contains(streamText, '\0'))
    require(agree(streamText, dumperText), "both texts agree");
  require(onDumper(m, indent, capacity) == dumperText.substr(0, capacity),
          "a full Dumper keeps the beginning");
  return 0;
}
