#pragma once
// tests/lib/loop/report_reader.h: what a piece of a crash report writes, as a string.

#include <functional>
#include <string>

#include "loop/report_text.h"

namespace kl::test {

std::string reportOf(const std::function<void(ReportText&)>& write);

// A descriptor at whose beginning `content` can be read.
int fileWith(const std::string& content);

}  // namespace kl::test
