// Every call that libseccomp knows on this processor is named, either allowed or refused, so that the rest are those which
// came later: they do not exist.  A C library that tries one falls back.
//
// F1  a call without a rule fails with ENOSYS
// F2  clone3, whose flags no filter can see, is one of them: the C library takes clone instead
// F3  of clone, flags for namespaces are refused; of socket, families that are not allowed, where no other call makes
//     sockets whose arguments no filter can see
// F4  a number with more than 32 bits matches no rule, so nobody slips through by it

#include <sched.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>

#include "life/call_filter.h"
#include "services/common/descriptor.h"

namespace loader {
namespace {

constexpr std::uint32_t kRefusedCall = SCMP_ACT_ERRNO(EPERM);
constexpr std::uint32_t kUnknownCall = SCMP_ACT_ERRNO(ENOSYS);  // F1

struct CallNumbers {
  int first, end;
};

// Those of all processors, but for what one has above them.
constexpr CallNumbers kCallNumbers[] = {{0, 1024}, {0x0f0000, 0x0f0010}};
constexpr unsigned int kLeastCalls = 200;  // a processor with fewer numbers its calls otherwise

// The stack of the new thread comes first on one processor.
#ifdef __s390__
constexpr unsigned int kFlagsOfClone = 1;
#else
constexpr unsigned int kFlagsOfClone = 0;
#endif

constexpr int kNamespaceFlags[] = {CLONE_NEWNS,   CLONE_NEWCGROUP, CLONE_NEWUTS, CLONE_NEWIPC,
                                   CLONE_NEWUSER, CLONE_NEWPID,    CLONE_NEWNET};
constexpr int kMostFamilies = 64;

// A sanitizer that looks for leaks stops the threads of its process as a debugger would.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kIsSanitized = true;
#elif defined(__has_feature)
constexpr bool kIsSanitized = __has_feature(address_sanitizer);
#else
constexpr bool kIsSanitized = false;
#endif

class FilterRules {
 public:
  explicit FilterRules(Profile profile) : profile_(profile), context_(::seccomp_init(kUnknownCall)) {
    if (context_ == nullptr) return;
    isSound_ = ::seccomp_attr_set(context_, SCMP_FLTATR_ACT_BADARCH, kUnknownCall) == 0;
    (void)::seccomp_attr_set(context_, SCMP_FLTATR_CTL_OPTIMIZE, 2);  // a tree instead of a walk
  }
  ~FilterRules() { ::seccomp_release(context_); }
  FilterRules(const FilterRules&) = delete;
  FilterRules& operator=(const FilterRules&) = delete;

  void addAll() {
    unsigned int count = 0;
    for (const CallNumbers& numbers : kCallNumbers)
      for (int call = numbers.first; call < numbers.end; ++call) count += addKnown(call) ? 1 : 0;
    isSound_ = isSound_ && count >= kLeastCalls;
  }

  std::vector<sock_filter> program() const {
    const common::Descriptor file(::memfd_create("filter", MFD_CLOEXEC));
    if (!isSound_ || ::seccomp_export_bpf(context_, file.get()) != 0) return {};
    const off_t bytes = ::lseek(file.get(), 0, SEEK_END);
    std::vector<sock_filter> program(static_cast<std::size_t>(std::max<off_t>(bytes, 0)) /
                                     sizeof(sock_filter));
    const std::size_t wanted = program.size() * sizeof(sock_filter);
    if (::pread(file.get(), program.data(), wanted, 0) != static_cast<ssize_t>(wanted)) return {};
    return program;
  }

 private:
  // False where this processor has no call of that number.
  bool addKnown(int call) {
    const std::unique_ptr<char, decltype(&std::free)> name(
        ::seccomp_syscall_resolve_num_arch(SCMP_ARCH_NATIVE, call), &std::free);
    if (!name) return false;
    addCall(call, name.get());
    return true;
  }

  void addCall(int call, std::string_view name) {
    if (name == "clone3") return;  // F2
    if (name == "clone") return addClone(call);
    if (name == "socket" && !socketFamilies(profile_).empty() && !hasSocketCall()) return addSocket(call);
    const bool isNeeded = kIsSanitized && name == "ptrace";
    add(isRefused(name, profile_) && !isNeeded ? kRefusedCall : SCMP_ACT_ALLOW, call);
  }

  static bool hasSocketCall() { return ::seccomp_syscall_resolve_name("socketcall") >= 0; }

  void addClone(int call) {
    scmp_datum_t all = 0;
    for (const int flag : kNamespaceFlags) {
      all |= static_cast<scmp_datum_t>(flag);
      add(kRefusedCall, call,
          SCMP_CMP(kFlagsOfClone, SCMP_CMP_MASKED_EQ, static_cast<scmp_datum_t>(flag),
                   static_cast<scmp_datum_t>(flag)));
    }
    add(SCMP_ACT_ALLOW, call, SCMP_CMP(kFlagsOfClone, SCMP_CMP_MASKED_EQ, all, 0));
  }

  void addSocket(int call) {
    const auto allowed = socketFamilies(profile_);
    for (int family = 0; family < kMostFamilies; ++family)
      add(std::ranges::find(allowed, family) != allowed.end() ? SCMP_ACT_ALLOW : kRefusedCall, call,
          SCMP_A0(SCMP_CMP_EQ, static_cast<scmp_datum_t>(family), 0));
  }

  void add(std::uint32_t action, int call) {
    isSound_ = isSound_ && ::seccomp_rule_add_exact(context_, action, call, 0) == 0;
  }
  void add(std::uint32_t action, int call, scmp_arg_cmp argument) {
    isSound_ = isSound_ && ::seccomp_rule_add_exact_array(context_, action, call, 1, &argument) == 0;
  }

  Profile profile_;
  scmp_filter_ctx context_;
  bool isSound_ = false;
};

}  // namespace

std::vector<sock_filter> makeFilterProgram(Profile profile) {
  FilterRules rules(profile);
  rules.addAll();
  return rules.program();
}

}  // namespace loader
