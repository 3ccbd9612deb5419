#pragma once
// line_filter.h: which lines somebody wants.

#include <optional>
#include <string>

#include "keeping/line.h"
#include "kl/message.h"

namespace logd {

// What the fields of a request ask for; a field that is not there asks for nothing.
class LineFilter {
 public:
  explicit LineFilter(const kl::message& request);

  bool passes(const Line& line) const;

  bool operator==(const LineFilter&) const = default;

 private:
  Topics topics_;
  std::optional<std::string> process_;
  std::optional<unsigned int> pid_;
  std::optional<unsigned int> source_;
  Nanoseconds since_;
  std::string contains_;
};

}  // namespace logd
