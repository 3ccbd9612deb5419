// Bytes from anywhere are viewed, and read as a message.
//
//   - the view says of the bytes what the message says: whether they were read to their end, which fields there are and
//     their values, by every operation that both have and in whatever order
//   - the view reads nothing outside the bytes, which lie at the end of memory of their own
//   - the same bytes written several times over, each field then standing as often, still read the same, and so do as
//     many more fields as a script of few bytes makes

#include "fuzz/input.h"
#include "tests/lib/message/view_differences.h"

namespace {

using fuzz::Bytes;
using fuzz::require;

void check(const Bytes& bytes) {
  const std::string differences = kl::test::viewDifferences(bytes);
  require(differences.empty(), differences.c_str());
}

// Numbers under ids that follow one another, or lie apart by some step, in either direction.
void appendNumbers(Bytes& to, fuzz::Input& script) {
  const unsigned int step = 1U << script.upTo(23);
  unsigned int id = script.u16();
  for (unsigned int n = script.upTo(700); n > 0; --n, id += step) {
    const unsigned int written = (id & 0x00FFFFFF) | 0x09000000;
    for (const unsigned int shift : {0U, 8U, 16U, 24U})
      to.push_back(static_cast<unsigned char>(written >> shift));
    to.push_back(static_cast<unsigned char>(n));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Bytes bytes(data, data + std::min<std::size_t>(size, 0x4000));
  bytes.shrink_to_fit();
  check(bytes);
  if (bytes.size() < 7 || bytes[0] != 0x4d || bytes[1] != 0x32) return 0;
  Bytes longer{0x4d, 0x32};
  fuzz::Input script(data + size - 5, 5);
  if (script.upTo(7) != 0) return 0;
  for (unsigned int n = bytes.size() < 0x400 ? script.upTo(3) : 0; n > 0; --n)
    longer.insert(longer.end(), bytes.begin() + 2, bytes.end());
  appendNumbers(longer, script);
  longer.insert(longer.end(), bytes.begin() + 2, bytes.end());
  check(longer);
  return 0;
}
