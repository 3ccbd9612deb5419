// The names are those of capabilities(7), the numbers those of the kernel, which never change.

#include "config/capabilities.h"

#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>

namespace loader {
namespace {

using common::Section;

// In the order of their numbers.
constexpr std::string_view kCapabilityNames[] = {"CHOWN",
                                                 "DAC_OVERRIDE",
                                                 "DAC_READ_SEARCH",
                                                 "FOWNER",
                                                 "FSETID",
                                                 "KILL",
                                                 "SETGID",
                                                 "SETUID",
                                                 "SETPCAP",
                                                 "LINUX_IMMUTABLE",
                                                 "NET_BIND_SERVICE",
                                                 "NET_BROADCAST",
                                                 "NET_ADMIN",
                                                 "NET_RAW",
                                                 "IPC_LOCK",
                                                 "IPC_OWNER",
                                                 "SYS_MODULE",
                                                 "SYS_RAWIO",
                                                 "SYS_CHROOT",
                                                 "SYS_PTRACE",
                                                 "SYS_PACCT",
                                                 "SYS_ADMIN",
                                                 "SYS_BOOT",
                                                 "SYS_NICE",
                                                 "SYS_RESOURCE",
                                                 "SYS_TIME",
                                                 "SYS_TTY_CONFIG",
                                                 "MKNOD",
                                                 "LEASE",
                                                 "AUDIT_WRITE",
                                                 "AUDIT_CONTROL",
                                                 "SETFCAP",
                                                 "MAC_OVERRIDE",
                                                 "MAC_ADMIN",
                                                 "SYSLOG",
                                                 "WAKE_ALARM",
                                                 "BLOCK_SUSPEND",
                                                 "AUDIT_READ",
                                                 "PERFMON",
                                                 "BPF",
                                                 "CHECKPOINT_RESTORE"};
constexpr std::string_view kCapability = "CAP_";

// None for a text that is no name.
std::optional<Capabilities> bitOf(std::string_view name) {
  if (!name.starts_with(kCapability)) return {};
  const auto* const found = std::ranges::find(kCapabilityNames, name.substr(kCapability.size()));
  if (found == std::end(kCapabilityNames)) return {};
  return Capabilities{1} << (found - std::begin(kCapabilityNames));
}

}  // namespace

std::optional<Capabilities> readCapabilities(Section& section, common::Mistakes& warnings) {
  constexpr char kKey[] = "capabilities";
  const toml::node* const node = section.find(kKey);
  if (node == nullptr) return {};
  if (const toml::array* const list = node->as_array(); list != nullptr && list->empty())
    return Capabilities{0};
  constexpr char kExpected[] = "a list of names of capabilities, such as \"CAP_NET_ADMIN\"";
  Capabilities set = 0;
  for (const std::string& name : section.texts(kKey, kExpected)) {
    const auto bit = bitOf(name);
    if (bit) set |= *bit;
    else section.mistake(kKey, "there is no capability of the name \"" + name + "\"");
  }
  if (set != 0 && ::geteuid() != 0) warnings.push_back(section.remark(kKey, "only root may give any"));
  return set;
}

}  // namespace loader
