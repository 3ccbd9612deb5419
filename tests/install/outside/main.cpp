// A program of somebody who has installed the library and nothing else of it.

#include <cstdio>
#include <vector>

#include "kl/field.h"
#include "kl/message.h"
#include "kl/store.h"

namespace {

constexpr kl::field<unsigned int> kSpeed{0x08000005};
constexpr kl::field<std::string> kName{0x20000001};

}  // namespace

int main() {
  kl::message m;
  m.insert(kSpeed, 7);
  m.insert(kName, "ab");
  std::vector<unsigned char> bytes;
  m.flatten(bytes);
  const kl::message read(bytes);
  std::printf("%zu bytes, speed %u, name %s\n", bytes.size(), read.get(kSpeed, 0),
              read.get(kName, "").c_str());

  // This is not in the shared library, but in what is linked in beside it.
  std::printf("%zu files missing\n", kl::StoreView("/nowhere/table").findings().size());
}
