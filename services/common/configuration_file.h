#pragma once
// configuration_file.h: reading a file that somebody wrote by hand, and what is wrong with it.

#include <optional>
#include <string>
#include <vector>

namespace common {

// Something in a file that is not as it must be.
struct Mistake {
  std::string file;
  unsigned int line = 0;  // 0: the file as a whole
  std::string text;       // what was expected and, where it helps, what was found

  std::string describe() const;  // "FILE:LINE: TEXT"
};

using Mistakes = std::vector<Mistake>;

// Writes each mistake on the standard error stream, "PROGRAM: FILE:LINE: TEXT".
void report(const Mistakes& mistakes, const std::string& program);

// The longest file that is read: far more than anybody writes, and no danger to a small machine.
inline constexpr std::size_t kMostFileBytes = 1024 * 1024;

// Returns the whole text of a file.  None, with a mistake, where it cannot be read (a folder, for one) or is longer
// than kMostFileBytes.
std::optional<std::string> readFile(const std::string& file, Mistakes& mistakes);

// The same, but a file that does not exist is an empty one.
std::optional<std::string> readFileIfThere(const std::string& file, Mistakes& mistakes);

}  // namespace common
