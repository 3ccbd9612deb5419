#pragma once
// line_filter.h: which lines somebody wants.

#include <optional>
#include <string>

#include "keeping/line.h"
#include "kl/message.h"

namespace logd {

// The conditions that the fields of a request set for lines; a field that is not there sets none.
class LineFilter {
 public:
  explicit LineFilter(const kl::message& request);

  bool passes(const Line& line) const;
  // The user whose lines alone it lets through; nothing: any user's.
  std::optional<unsigned int> uid() const { return uid_; }

  bool operator==(const LineFilter&) const = default;

 private:
  Topics topics_;
  std::optional<std::string> process_;
  std::optional<unsigned int> pid_;
  std::optional<unsigned int> uid_;
  std::optional<unsigned int> source_;
  Nanoseconds since_;
  std::string contains_;
};

}  // namespace logd
