#pragma once
// Descriptions for the tests of klgen, from text.

#include <gtest/gtest.h>

#include <string>

#include "services/describe/check.h"
#include "services/describe/reader.h"

namespace klgen {

inline describe::Description described(const std::string& text) {
  common::Mistakes mistakes;
  describe::Description description =
      describe::read(text, "svc.toml", describe::OtherKeys::kRefused, mistakes);
  describe::check(description, "svc.toml", mistakes);
  for (const common::Mistake& m : mistakes) ADD_FAILURE() << m.describe();
  return description;
}

inline describe::Description sample() {
  common::Mistakes mistakes;
  const std::string file = std::string(KL_SOURCE_DIR) + "/tests/tools/klgen/sample.toml";
  return described(common::readFile(file, mistakes).value_or(""));
}

}  // namespace klgen
