#include "tests/golden/golden.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace golden {

Bytes file(const std::string& name) {
  Bytes bytes = contents(KL_SOURCE_DIR "/tests/golden/" + name);
  EXPECT_FALSE(bytes.empty()) << name;
  return bytes;
}

Bytes contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

}  // namespace golden
