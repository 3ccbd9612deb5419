// Each limit is one key; one that is missing leaves the process what the loader has.

#include "config/process_limits.h"

#include <sys/resource.h>
#include <unistd.h>

#include <string>

namespace loader {
namespace {

using common::Section;

constexpr long long kLeastMemoryBytes = 1 << 20;  // a program with its libraries hardly starts in less
constexpr long long kMostMemoryBytes = 1LL << 46;
constexpr long long kLeastFiles = 16;
constexpr long long kMostFiles = 1 << 20;  // the kernel's own bound, unless it was told otherwise
constexpr long long kMostTasks = 1 << 22;
constexpr int kMostUmaskDigits = 4;

template <class Number>
std::optional<Number> number(Section& section, const char* key, long long least, long long most) {
  if (section.find(key) == nullptr) return {};
  return section.number(key, static_cast<Number>(least), least, most);
}

// As people write it: the digits are octal, and a number of TOML would read them as others.
std::optional<mode_t> readUmask(Section& section) {
  if (section.find("umask") == nullptr) return {};
  const toml::node& node = *section.find("umask");
  const std::string digits = node.value_exact<std::string>().value_or("");
  const bool isOctal = digits.find_first_not_of("01234567") == std::string::npos;
  if (!digits.empty() && digits.size() <= kMostUmaskDigits && isOctal)
    if (const unsigned long mask = std::stoul(digits, nullptr, 8); mask <= 0777)
      return static_cast<mode_t>(mask);
  section.expected(node, "umask", "a text of octal digits, from \"000\" to \"0777\"");
  return {};
}

// Warns of limits that a process which is not root's may not give to others.
void warnOfRights(Section& section, const ProcessLimits& limits, common::Mistakes& warnings) {
  if (::geteuid() == 0) return;
  rlimit files{};
  if (limits.files && ::getrlimit(RLIMIT_NOFILE, &files) == 0 && *limits.files > files.rlim_max)
    warnings.push_back(
        section.remark("files", "only root may give more than " + std::to_string(files.rlim_max)));
  if (limits.nice && *limits.nice < 0)
    warnings.push_back(section.remark("nice", "only root may give less than 0"));
  if (limits.oomScore && *limits.oomScore < 0)
    warnings.push_back(section.remark("oom_score", "only root may give less than 0"));
}

}  // namespace

ProcessLimits readProcessLimits(Section& section, bool isForRoot, common::Mistakes& warnings) {
  ProcessLimits limits;
  limits.memory = number<std::uint64_t>(section, "memory", kLeastMemoryBytes, kMostMemoryBytes);
  limits.files = number<unsigned int>(section, "files", kLeastFiles, kMostFiles);
  limits.tasks = number<unsigned int>(section, "tasks", 1, kMostTasks);
  limits.nice = number<int>(section, "nice", -20, 19);
  limits.oomScore = number<int>(section, "oom_score", -1000, 1000);
  limits.umask = readUmask(section);
  limits.capabilities = readCapabilities(section, warnings);
  limits.mayGainPrivileges = section.boolean("new_privileges", false);
  limits.profile = readProfile(section, limits.mayGainPrivileges, warnings);
  warnOfRights(section, limits, warnings);
  if (limits.tasks && isForRoot)
    warnings.push_back(section.remark("tasks", "never binds: root may have any number of them"));
  return limits;
}

}  // namespace loader
