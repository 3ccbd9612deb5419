#pragma once
// expect_failure.h: runs what must fail and gives back how it did.

#include <gtest/gtest.h>

#include <string>

#include "tools/klctl/values/failure.h"

namespace klctl {

struct Told {
  int status;
  std::string sentence;
};

template <class Action>
Told failureOf(Action action) {
  try {
    action();
  } catch (const Failure& failure) {
    return {static_cast<int>(failure.status()), failure.what()};
  }
  ADD_FAILURE() << "nothing failed";
  return {-1, ""};
}

}  // namespace klctl
