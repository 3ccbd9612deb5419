#pragma once
// Descriptions for tests, from text.

#include <gtest/gtest.h>

#include <string>

#include "services/describe/check.h"
#include "services/describe/reader.h"

namespace describe {

inline Description described(const std::string& text) {
  common::Mistakes mistakes;
  Description description = read(text, "svc.toml", OtherKeys::kRefused, mistakes);
  check(description, "svc.toml", mistakes);
  for (const common::Mistake& m : mistakes) ADD_FAILURE() << m.describe();
  return description;
}

inline Description sample() {
  common::Mistakes mistakes;
  const std::string file = std::string(KL_SOURCE_DIR) + "/tests/tools/klgen/sample.toml";
  return described(common::readFile(file, mistakes).value_or(""));
}

}  // namespace describe
