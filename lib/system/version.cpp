// Versions of the system: a packed word, and the file that the installation leaves.

#include <cstdio>

#include "fixed_paths.h"
#include "kl/utilities.h"

namespace {

struct Version {
  unsigned int major;
  unsigned int minor;
  char kind;
  unsigned int number;
};

Version unpacked(unsigned int word) {
  return {word >> 24, (word >> 16) & 0xFF, static_cast<char>((word >> 8) & 0xFF), word & 0xFF};
}

const char* tagOf(char kind) {
  switch (kind) {
    case 'a': return "alpha";
    case 'b': return "beta";
    case 'c': return "rc";
    case 'f': return ".";
    default: return "";
  }
}

}  // namespace

std::string version2string(unsigned int version) {
  const Version v = unpacked(version);
  const bool isNumbered = v.number != 0;
  char text[80];
  if (isNumbered)
    (void)std::snprintf(text, sizeof text, "%u.%u%s%u", v.major, v.minor, tagOf(v.kind), v.number);
  else
    (void)std::snprintf(text, sizeof text, "%u.%u%s", v.major, v.minor, v.kind == 'f' ? "" : tagOf(v.kind));
  return text;
}

std::string getOSVersion() {
  std::FILE* file = std::fopen(kl::underRoot(kl::paths::kVersionFile).c_str(), "re");
  if (file == nullptr) return {};
  unsigned int version = 0;
  unsigned int unused = 0;
  const bool hasBoth = std::fscanf(file, "%u %u", &version, &unused) == 2;  // NOLINT(cert-err34-c)
  (void)std::fclose(file);
  return hasBoth ? version2string(version) : std::string();
}
