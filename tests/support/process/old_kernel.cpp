// old_kernel PROGRAM [ARGUMENT...]: runs a program, and all that it starts, as a kernel of version 4.14 would: the calls
// that came later do not exist.  Status 77: this cannot be arranged here.

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>

namespace {

constexpr unsigned int kFirstLaterCall = 333;  // on x86-64; 332 is statx, of 4.11

bool forgetLaterCalls() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, kFirstLaterCall, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{sizeof program / sizeof *program, program};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs("usage: old_kernel PROGRAM [ARGUMENT...]\n", stderr);
    return 2;
  }
  if (!forgetLaterCalls()) {
    std::perror("old_kernel");
    return 77;
  }
  ::execv(argv[1], argv + 1);
  std::perror(argv[1]);
  return 127;
}
