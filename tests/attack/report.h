#pragma once
// report.h: what a scenario measured, and which of its promises were not kept.

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace attack {

struct Report {
  std::string title;
  std::vector<std::pair<std::string, std::string>> figures;
  std::vector<std::string> broken;
  // The growth of the loader's memory since it was warm.  Only an ordinary build is judged by it: sanitizers and
  // emulators keep memory of their own.
  std::size_t grownBytes = 0;

  void figure(const std::string& name, unsigned long long value, const std::string& unit = "") {
    figures.emplace_back(name, std::to_string(value) + (unit.empty() ? "" : " " + unit));
  }
  void promise(bool isKept, const std::string& what) {
    if (!isKept) broken.push_back(what);
  }
};

inline std::size_t grownBytes(std::size_t before, std::size_t after) {
  return after > before ? after - before : 0;
}

}  // namespace attack
