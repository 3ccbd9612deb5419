// A profile is a few groups of calls, each for a reason, so that nobody has to write a list of calls.  What a group names and
// a processor does not have is no matter.

#include "config/profiles.h"

#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <vector>

namespace loader {
namespace {

using Call = std::string_view;

constexpr Call kModules[] = {"init_module",   "finit_module", "delete_module",
                             "create_module", "query_module", "get_kernel_syms"};
constexpr Call kRestart[] = {"reboot", "kexec_load", "kexec_file_load"};
constexpr Call kFileSystems[] = {"mount",     "umount",     "umount2",       "pivot_root",
                                 "open_tree", "move_mount", "fsopen",        "fsconfig",
                                 "fsmount",   "fspick",     "mount_setattr", "swapon",
                                 "swapoff",   "quotactl",   "quotactl_fd",   "open_by_handle_at"};
constexpr Call kOthersMemory[] = {"ptrace", "process_vm_readv", "process_vm_writev", "pidfd_getfd", "kcmp"};
constexpr Call kProgramsInTheKernel[] = {"bpf",
                                         "perf_event_open",
                                         "userfaultfd",
                                         "io_uring_setup",
                                         "io_uring_enter",
                                         "io_uring_register",
                                         "lookup_dcookie"};
constexpr Call kKeys[] = {"add_key", "request_key", "keyctl"};
constexpr Call kNamespaces[] = {"unshare", "setns"};
constexpr Call kHardware[] = {"iopl",
                              "ioperm",
                              "vm86",
                              "vm86old",
                              "pciconfig_read",
                              "pciconfig_write",
                              "pciconfig_iobase",
                              "s390_pci_mmio_read",
                              "s390_pci_mmio_write"};
constexpr Call kForgotten[] = {"_sysctl",    "acct",  "afs_syscall", "bdflush",
                               "nfsservctl", "sysfs", "uselib",      "vserver"};
constexpr Call kClock[] = {"settimeofday", "stime",         "clock_settime",  "clock_settime64",
                           "adjtimex",     "clock_adjtime", "clock_adjtime64"};
constexpr Call kMachine[] = {"sethostname", "setdomainname", "syslog", "vhangup", "chroot", "fanotify_init"};

constexpr CallGroup kCallGroups[] = {
    {"modules of the kernel", Profile::kPlain, kModules},
    {"another start, another kernel", Profile::kPlain, kRestart},
    {"file systems", Profile::kPlain, kFileSystems},
    {"memory and files of other processes", Profile::kPlain, kOthersMemory},
    {"programs and queues inside the kernel", Profile::kPlain, kProgramsInTheKernel},
    {"keys that the kernel keeps", Profile::kPlain, kKeys},
    {"namespaces", Profile::kPlain, kNamespaces},
    {"hardware without its driver", Profile::kPlain, kHardware},
    {"what nobody uses any more", Profile::kPlain, kForgotten},
    {"the clock", Profile::kQuiet, kClock},
    {"the machine as a whole", Profile::kQuiet, kMachine},
};

constexpr int kLocal[] = {AF_UNIX};
constexpr int kLocalAndNetwork[] = {AF_UNIX, AF_INET, AF_INET6, AF_NETLINK, AF_PACKET};

// By the numbers of the profiles.
const std::vector<std::string> kProfileWords = {"none", "plain", "quiet", "network"};

}  // namespace

std::span<const CallGroup> callGroups() { return kCallGroups; }

bool isRefused(std::string_view call, Profile profile) {
  return std::ranges::any_of(kCallGroups, [&](const CallGroup& group) {
    return profile >= group.since && std::ranges::find(group.calls, call) != group.calls.end();
  });
}

std::span<const int> socketFamilies(Profile profile) {
  if (profile == Profile::kQuiet) return kLocal;
  if (profile == Profile::kNetwork) return kLocalAndNetwork;
  return {};
}

std::string_view nameOf(Profile profile) { return kProfileWords[static_cast<std::size_t>(profile)]; }

Profile readProfile(common::Section& section, bool mayGainPrivileges, common::Mistakes& warnings) {
  const auto profile = static_cast<Profile>(section.choice("profile", kProfileWords));
  if (profile == Profile::kNone) return profile;
  if (mayGainPrivileges)
    section.mistake("profile", "expected no new_privileges: a profile lets nobody gain any");
  if (!KL_HAS_PROFILES)
    warnings.push_back(
        section.remark("profile", "this kl-loader was built without profiles, so nothing is refused"));
  return profile;
}

}  // namespace loader
