// The last words of a process.
//
// A fatal signal, or SIGUSR2 in a healthy process, writes: the program, the signal, the registers, the return addresses
// on the stack, the instructions at the place of the crash, the executable mappings, and what the code in flight
// announced with BacktraceInfo.  After SIGUSR2 the process goes on; after the others it ends with status 1.
//
// C1  nothing here allocates, locks or uses streams: the heap and the locks may be what is broken
// C2  memory that may be unreadable is read through a pipe; what cannot be read ends its section
// C3  one report at a time: the static buffers have one user.  A second fatal signal on the same thread ends the
//     process by its default action; another thread waits
// C4  after SIGUSR2 everything is as it was: errno, the signal mask, no SIGPIPE waiting, no descriptor left open

#include "loop/crash_report.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <initializer_list>

#include "base/held_output.h"
#include "fixed_paths.h"
#include "kl/backtrace.h"
#include "kl/message.h"
#include "loop/frames.h"
#include "loop/local_time.h"
#include "loop/maps.h"
#include "loop/processor.h"
#include "loop/report_text.h"
#include "loop/safe_memory.h"

namespace kl {

const char* stackTop = nullptr;

namespace {

constexpr unsigned int kCodeWords = 8;
constexpr unsigned int kRecordBytes = 1600;
constexpr unsigned int kExitLimitSeconds = 3;

std::atomic<int> reportingThread{0};  // C3; its kernel number, 0 for none
static_assert(std::atomic<int>::is_always_lock_free);

// Async-signal-safe: one system call.
int ownThread() { return static_cast<int>(::syscall(SYS_gettid)); }

// Async-signal-safe.
void sleepShortly() {
  const timespec tenMs{0, 10'000'000};
  ::nanosleep(&tenMs, nullptr);
}

// Async-signal-safe.  Takes the right to report (C3); false if this very thread is reporting already.
bool beginReport() {
  const int self = ownThread();
  for (int owner = 0; !reportingThread.compare_exchange_strong(owner, self); owner = 0) {
    if (owner == self) return false;
    sleepShortly();
  }
  return true;
}

// While it lives, writing to a pipe without a reader is just an error.  The SIGPIPE of a write goes to the thread that
// writes, so blocking it here and taking it back concerns no other thread.
//
// Async-signal-safe: system calls only.
class WithoutSigpipe {
 public:
  WithoutSigpipe() {
    sigset_t pending;
    ::sigpending(&pending);
    wasPending_ = ::sigismember(&pending, SIGPIPE) == 1;
    ::sigemptyset(&pipeOnly_);
    ::sigaddset(&pipeOnly_, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipeOnly_, &savedMask_);
  }
  ~WithoutSigpipe() {
    const timespec atOnce{};
    if (!wasPending_) ::sigtimedwait(&pipeOnly_, nullptr, &atOnce);
    ::pthread_sigmask(SIG_SETMASK, &savedMask_, nullptr);
  }
  WithoutSigpipe(const WithoutSigpipe&) = delete;
  WithoutSigpipe& operator=(const WithoutSigpipe&) = delete;

 private:
  bool wasPending_;
  sigset_t pipeOnly_;
  sigset_t savedMask_;
};

// Async-signal-safe: open(2).
int openReportDevice() {
  const int fd = ::open(paths::kReportDevice, O_WRONLY | O_CLOEXEC | O_NOCTTY);
  return fd < 0 ? STDOUT_FILENO : fd;
}

// Async-signal-safe: readlink(2), getpid(2).
void writeProgram(ReportText& out) {
  const ssize_t size = ::readlink("/proc/self/exe", textBuffer, kTextBytes);
  if (size >= 0) out.put(textBuffer, static_cast<std::size_t>(size));
  else out.putNumber("unknown[", static_cast<unsigned int>(::getpid()), 16, 8, "]");
}

// Async-signal-safe.
void writeCode(std::uintptr_t instruction, const SafeMemory& memory, ReportText& out) {
  for (unsigned int i = 0; i < kCodeWords; ++i) {
    std::uint32_t word = 0;
    if (!memory.read(instruction + i * sizeof word, word)) return;
    out.putNumber("", word, 16, 8, " ");
  }
}

// Async-signal-safe: open(2), read(2), close(2).
void writeMaps(ReportText& out) {
  const int fd = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  writeExecutableMaps(fd, out);
  ::close(fd);
}

// Async-signal-safe, as far as the records' own dump() is.  A Dumper over memory of our own allocates nothing.
void writeRecords(const SafeMemory& memory, ReportText& out) {
  for (BacktraceInfo* record = backtraceInfoHead; record != nullptr; record = record->next()) {
    std::uintptr_t words[2];  // the virtual table and the link
    const auto address = reinterpret_cast<std::uintptr_t>(record);
    if (!memory.read(address, words)) return;
    out.putWord("extra 0x", address, "\n");
    out.flush();  // should the record fault, what came before it is out
    char text[kRecordBytes];
    Dumper dumper(text, kRecordBytes);
    record->dump(dumper);
    out.put(dumper.data(), dumper.used());
  }
}

// Async-signal-safe.
void writeReport(int sig, const void* context, int fd, std::uintptr_t ownFrame) {
  const SafeMemory memory;
  const Registers registers = readRegisters(context, memory);
  const auto top = reinterpret_cast<std::uintptr_t>(stackTop);
  ReportText out(fd);
  writeProgram(out);
  out.putDecimal("\n--- signal=", static_cast<unsigned int>(sig),
                 " --------------------------------------------\n\n");
  writeRegisters(registers, out);
  out.put("\nbacktrace:\n");
  out.flush();
  writeBacktrace(walkStart(registers, top, memory), ownFrame, top, memory, out);
  out.put("\n\ncode:\n");
  writeCode(instructionAddress(registers), memory, out);
  out.put("\n\nmaps:\n");
  writeMaps(out);
  writeRecords(memory, out);
  out.put("\n\n");
}

// Async-signal-safe.
void writeClosingLine(int sig) {
  char text[kTimeTextBytes];
  ReportText out(STDOUT_FILENO);
  out.putDecimal("died with signal ", static_cast<unsigned int>(sig), " on ");
  out.put(text, formatLocalTime(::time(nullptr), text));
  out.put("\n");
}

// exit(3) runs destructors and flushes streams, and the crash may have left any of their locks held, or any of
// their data damaged.  The alarm ends the process then.
[[noreturn]] void endProcess() {
  ::signal(SIGALRM, SIG_DFL);
  sigset_t alarmOnly;
  ::sigemptyset(&alarmOnly);
  ::sigaddset(&alarmOnly, SIGALRM);
  ::pthread_sigmask(SIG_UNBLOCK, &alarmOnly, nullptr);
  ::alarm(kExitLimitSeconds);
  std::exit(1);
}

}  // namespace

// Async-signal-safe, apart from the exit at the end.
void onFatalSignal(int sig, siginfo_t*, void* context) {
  const int savedErrno = errno;
  const auto ownFrame = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
  if (sig != SIGUSR2) ::signal(sig, SIG_DFL);
  if (!beginReport()) {
    // The instruction is run again and ends the process; a signal that was sent has to be sent once more.
    if (sig != SIGUSR2) ::raise(sig);
    return;
  }
  {
    const WithoutSigpipe quiet;
    if (sig != SIGUSR2) heldOutput.attempt();
    writeReport(sig, context, sig == SIGUSR2 ? STDOUT_FILENO : openReportDevice(), ownFrame);
    if (sig != SIGUSR2) writeClosingLine(sig);
  }
  if (sig != SIGUSR2) endProcess();
  reportingThread = 0;
  errno = savedErrno;
}

void installCrashReporter() {
  rememberLocalZone(std::time(nullptr));
  struct sigaction action = {};
  action.sa_sigaction = onFatalSignal;
  action.sa_flags = SA_RESTART | SA_SIGINFO;
  for (const int sig : {SIGSEGV, SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGUSR2})
    ::sigaction(sig, &action, nullptr);
}

}  // namespace kl
