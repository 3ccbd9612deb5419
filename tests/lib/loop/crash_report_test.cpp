#include "loop/crash_report.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kl/backtrace.h"
#include "kl/message.h"
#include "kl/runner.h"
#include "tests/support/process/child.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KL_SANITIZED_HEAP 1
#else
#define KL_SANITIZED_HEAP 0
#endif

// The exit at the end of a crash is not async-signal-safe, on purpose, and threads are lost in it.
extern "C" const char* __tsan_default_options() { return "report_signal_unsafe=0:report_thread_leaks=0"; }

namespace {

std::atomic<unsigned int> pauses{0};  // of all threads, since the program began

}  // namespace

// In the place of the C library's.
extern "C" int nanosleep(const timespec* length, timespec* rest) {
  ++pauses;
  return static_cast<int>(::syscall(SYS_nanosleep, length, rest));
}

namespace kl {
namespace {

// --- Ways to die.  None of them is inlined, and each has called something that called something: on some processors a
// return address is only saved by a function that makes calls, and in its caller's frame.

#ifdef __clang__
#define OWN_FRAME __attribute__((noinline))
#else
#define OWN_FRAME __attribute__((noinline, noclone))
#endif

OWN_FRAME void doNothingAtAll() { asm volatile(""); }

OWN_FRAME void doNothing() {
  doNothingAtAll();
  asm volatile("");
}

OWN_FRAME void writeToNull() {
  doNothing();
  volatile std::uintptr_t nowhere = 16;
  *reinterpret_cast<volatile int*>(nowhere) = 1;
}

OWN_FRAME void runIllegalInstruction() {
  doNothing();
#if defined(__x86_64__) || defined(__i386__)
  asm volatile("ud2");
#elif defined(__aarch64__)
  asm volatile(".inst 0");
#else
  asm volatile(".long 0");
#endif
}

OWN_FRAME void abortMission() {
  std::abort();
  asm volatile("");
}

OWN_FRAME void readTruncatedMapping() {
  const int fd = ::memfd_create("short", MFD_CLOEXEC);
  void* place = ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
  (void)*static_cast<volatile char*>(place);
}

// Only some processors trap on a division by zero.
OWN_FRAME void divideByZero() {
  doNothing();
#if defined(__x86_64__)
  asm volatile("xorl %%ecx, %%ecx; movl $1, %%eax; cltd; idivl %%ecx" : : : "eax", "ecx", "edx", "cc");
#else
  ::kill(::getpid(), SIGFPE);
#endif
  asm volatile("");
}

OWN_FRAME void callAndReturn(void (*die)()) {
  die();
  asm volatile("");  // keeps the call from becoming a jump
}

// --- A report taken apart.

struct Report {
  std::string program;
  std::string signal;
  std::string registers;
  std::vector<std::uintptr_t> backtrace;
  std::vector<std::string> code;
  std::string maps;
  std::string rest;  // the records and what follows
};

// The text of `whole` up to `mark`; both are taken off.
std::string takeUntil(std::string& whole, const std::string& mark) {
  const auto at = whole.find(mark);
  EXPECT_NE(at, std::string::npos) << "no '" << mark << "' in:\n" << whole;
  if (at == std::string::npos) return {};
  std::string part = whole.substr(0, at);
  whole.erase(0, at + mark.size());
  return part;
}

std::vector<std::string> wordsOf(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

Report parse(std::string& text) {
  Report report;
  report.program = takeUntil(text, "\n--- signal=");
  report.signal = takeUntil(text, " --------------------------------------------\n\n");
  report.registers = takeUntil(text, "\nbacktrace:\n");
  for (const std::string& word : wordsOf(takeUntil(text, "\n\ncode:\n"))) {
    EXPECT_EQ(word.size(), 2 + 2 * sizeof(void*)) << word;
    report.backtrace.push_back(static_cast<std::uintptr_t>(std::stoull(word, nullptr, 16)));
  }
  report.code = wordsOf(takeUntil(text, "\n\nmaps:\n"));
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line) && line.find(" r-xp ") != std::string::npos;)
    report.maps += line + "\n";
  text.erase(0, report.maps.size());
  report.rest = text;
  return report;
}

// Whether an address lies in the function that every death goes through.
bool isInCaller(std::uintptr_t address) {
  const auto begin = reinterpret_cast<std::uintptr_t>(&callAndReturn);
  return address > begin && address < begin + 200;
}

bool callerIsIn(const Report& report) {
  return std::any_of(report.backtrace.begin(), report.backtrace.end(), isInCaller);
}

// Where the processor has a register for it, the return address of a function without a frame is only there.
bool callerIsInLinkRegister(const Report& report) {
  const auto at = report.registers.find(" lr=0x");
  return at != std::string::npos && isInCaller(static_cast<std::uintptr_t>(
                                        std::stoull(report.registers.substr(at + 6, 16), nullptr, 16)));
}

// In the pattern '#' stands for a digit, '_' for a digit or a blank, '@' for a letter and '*' for a hexadecimal digit.
bool looksLike(const std::string& text, const std::string& pattern) {
  if (text.size() != pattern.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool fits = pattern[i] == '#'   ? std::isdigit(c) != 0
                      : pattern[i] == '_' ? std::isdigit(c) != 0 || c == ' '
                      : pattern[i] == '@' ? std::isalpha(c) != 0
                      : pattern[i] == '*' ? std::isxdigit(c) != 0
                                          : text[i] == pattern[i];
    if (!fits) return false;
  }
  return true;
}

bool isOnlyTheClosingLine(const std::string& rest, int sig) {
  return looksLike(rest, "\n\ndied with signal " + std::to_string(sig) + " on @@@ @@@ _# ##:##:## ####\n\n");
}

test::ChildResult dieWithARunner(const std::function<void()>& body) {
  return test::runInChild([&] {
    Runner loop;
    body();
  });
}

bool writeFile(const char* path, const std::string& text) {
  const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
  const bool done = fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  return done;
}

// Gives the child mounts of its own; an ordinary user becomes the root of a user namespace for that.
bool ownMounts() {
  const std::string user = "0 " + std::to_string(::geteuid()) + " 1";
  const std::string group = "0 " + std::to_string(::getegid()) + " 1";
  if (::unshare(CLONE_NEWNS) == 0) return true;
  return ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && writeFile("/proc/self/uid_map", user) &&
         writeFile("/proc/self/setgroups", "deny") && writeFile("/proc/self/gid_map", group);
}

// Puts an empty folder over one of the child's; false where the host does not allow it.
bool coverFolder(const char* folder) {
  return ownMounts() && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("none", folder, "tmpfs", 0, nullptr) == 0;
}

bool foldersCanBeCovered() {
  return test::runInChild([] { ::_exit(coverFolder("/dev") ? 0 : 1); }).exitStatus == 0;
}

class Note : public BacktraceInfo {
 public:
  explicit Note(std::string text) : text_(std::move(text)) {}
  void dump(Dumper& out) override { out.write(text_.data(), static_cast<unsigned int>(text_.size())); }

 private:
  std::string text_;
};

// --- The six signals.

struct Death {
  int sig;
  void (*die)();
  const char* name;
  friend std::ostream& operator<<(std::ostream& out, const Death& death) { return out << death.name; }
};

class EachSignal : public ::testing::TestWithParam<Death> {};

TEST_P(EachSignal, LeavesAWholeReportAndStatusOne) {
  const Death& death = GetParam();
  auto child = dieWithARunner([&] { callAndReturn(death.die); });
  EXPECT_EQ(child.exitStatus, 1) << child.signal;
  const std::string whole = child.out;
  const Report report = parse(child.out);
  char self[100];
  const ssize_t size = ::readlink("/proc/self/exe", self, sizeof self);
  EXPECT_EQ(report.program, std::string(self, static_cast<std::size_t>(size)));
  EXPECT_EQ(report.signal, std::to_string(death.sig));
  EXPECT_EQ(report.code.size(), 8u) << whole;
  for (const std::string& word : report.code) EXPECT_EQ(word.size(), 8u);
  EXPECT_FALSE(report.maps.empty()) << whole;
  EXPECT_TRUE(isOnlyTheClosingLine(report.rest, death.sig)) << report.rest;
  EXPECT_TRUE(callerIsIn(report)) << whole;
}

INSTANTIATE_TEST_SUITE_P(CrashReport, EachSignal,
                         ::testing::Values(Death{SIGSEGV, writeToNull, "NullWrite"},
                                           Death{SIGILL, runIllegalInstruction, "IllegalInstruction"},
                                           Death{SIGABRT, abortMission, "Abort"},
                                           Death{SIGBUS, readTruncatedMapping, "TruncatedMapping"},
                                           Death{SIGFPE, divideByZero, "Division"}),
                         [](const auto& death) { return death.param.name; });

TEST(CrashReport, OnRequestThereIsAReportAndTheProcessGoesOn) {
  auto child = dieWithARunner([] {
    for (int i = 0; i < 2; ++i) {
      errno = 4711;
      ::raise(SIGUSR2);
      if (errno != 4711) ::_exit(3);
    }
    (void)!::write(1, "still here", 10);
  });
  EXPECT_EQ(child.exitStatus, 0);
  for (int i = 0; i < 2; ++i) {
    const Report report = parse(child.out);
    EXPECT_EQ(report.signal, "12");
    EXPECT_FALSE(report.maps.empty());
    EXPECT_EQ(report.rest.substr(0, 2), "\n\n");
    child.out.erase(0, 2);
  }
  EXPECT_EQ(child.out, "still here");
}

// --- A service that is asked for a report while it works.

class Echo {
 public:
  Echo(Runner& loop, int fd) : fd_(fd) { loop.addSocket(fd, this, bind<Echo, &Echo::onReadable>(), POLLIN); }

 private:
  void onReadable(int, unsigned int) {
    char byte = 0;
    if (::read(fd_, &byte, 1) != 1) std::_Exit(0);  // the other side has what it wanted
    if (::write(fd_, &byte, 1) != 1) std::_Exit(3);
  }
  int fd_;
};

// Asks for a report and, right after, for an echo, a hundred times.
[[noreturn]] void askAHundredTimes(int fd) {
  for (int i = 0; i < 100; ++i) {
    ::kill(::getppid(), SIGUSR2);
    char byte = static_cast<char>(i);
    char answer = 0;
    if (::write(fd, &byte, 1) != 1 || ::read(fd, &answer, 1) != 1 || answer != byte) std::_Exit(1);
  }
  (void)!::write(2, "served", 6);
  std::_Exit(0);
}

std::size_t occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

TEST(CrashReport, AServiceAskedAHundredTimesGoesOnServing) {
  const auto child = dieWithARunner([] {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) ::_exit(2);
    if (::fork() == 0) askAHundredTimes(ends[1]);
    ::close(ends[1]);
    const int firstFree = ::dup(0);
    ::close(firstFree);
    Echo echo(*getRunner(), ends[0]);
    getRunner()->run();
  });
  EXPECT_EQ(child.exitStatus, 0) << child.signal;
  EXPECT_EQ(child.err, "served");
  EXPECT_EQ(occurrences(child.out, "--- signal=12 "), 100u);
  EXPECT_EQ(child.out.find("died with signal"), std::string::npos);
}

TEST(CrashReport, AReportLeavesNoDescriptorOpenAndNoSignalBlocked) {
  const auto child = dieWithARunner([] {
    const int before = ::dup(0);
    ::close(before);
    ::raise(SIGUSR2);
    const int after = ::dup(0);
    sigset_t mask;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    ::_exit(before == after && ::sigismember(&mask, SIGPIPE) == 0 ? 0 : 1);
  });
  EXPECT_EQ(child.exitStatus, 0);
}

TEST(CrashReport, ABrokenPipeThatWaitedBeforeAReportWaitsAfterIt) {
  const auto child = dieWithARunner([] {
    sigset_t pipeOnly;
    ::sigemptyset(&pipeOnly);
    ::sigaddset(&pipeOnly, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipeOnly, nullptr);
    ::raise(SIGPIPE);
    ::raise(SIGUSR2);
    sigset_t waiting;
    sigset_t mask;
    ::sigpending(&waiting);
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    ::_exit(::sigismember(&waiting, SIGPIPE) == 1 && ::sigismember(&mask, SIGPIPE) == 1 ? 0 : 1);
  });
  EXPECT_EQ(child.exitStatus, 0);
}

TEST(CrashReport, AReaderThatWentDoesNotStopTheService) {
  const auto child = dieWithARunner([] {
    int ends[2];
    if (::pipe(ends) != 0) ::_exit(2);
    ::close(ends[0]);
    ::dup2(ends[1], 1);
    ::raise(SIGUSR2);
    (void)!::write(2, "served", 6);
    writeToNull();
  });
  EXPECT_EQ(child.exitStatus, 1);
  EXPECT_EQ(child.err, "served");
}

// --- Records.

TEST(CrashReport, TheYoungestRecordIsReportedFirst) {
  auto child = dieWithARunner([] {
    Note outer("outer\n");
    Note inner("inner\n");
    writeToNull();
  });
  const Report report = parse(child.out);
  const std::string address = "extra 0x" + std::string(2 * sizeof(void*), '*');
  const std::string expected = address + "\ninner\n" + address + "\nouter\n\n\ndied with";
  EXPECT_TRUE(looksLike(report.rest.substr(0, expected.size()), expected)) << report.rest;
}

TEST(CrashReport, ARecordLongerThan1600BytesIsCut) {
  auto child = dieWithARunner([] {
    Note note(std::string(1599, 'x') + "yz");
    writeToNull();
  });
  const Report report = parse(child.out);
  EXPECT_NE(report.rest.find("\n" + std::string(1599, 'x') + "y\n\ndied"), std::string::npos) << report.rest;
}

TEST(CrashReport, AMessageInFlightIsShownUnderItsLabel) {
  auto child = dieWithARunner([] {
    message m;
    m.insert_u32(0x08FF0007, 0xFE0004);
    MessageBacktraceInfo record("void somewhere()", m);
    writeToNull();
  });
  EXPECT_NE(parse(child.out).rest.find("\nvoid somewhere()\n"), std::string::npos);
}

TEST(CrashReport, ARecordThatCannotBeReadEndsTheSection) {
  auto child = dieWithARunner([] {
    backtraceInfoHead = reinterpret_cast<BacktraceInfo*>(16);
    writeToNull();
  });
  EXPECT_EQ(child.exitStatus, 1);
  EXPECT_TRUE(isOnlyTheClosingLine(parse(child.out).rest, SIGSEGV));
}

class Fatal : public BacktraceInfo {
 public:
  void dump(Dumper&) override { writeToNull(); }
};

TEST(CrashReport, ASecondFatalSignalDuringTheReportEndsTheProcess) {
  for (void (*die)() : {writeToNull, abortMission, runIllegalInstruction, +[] { ::raise(SIGUSR2); }}) {
    const auto child = dieWithARunner([=] {
      Fatal record;
      die();
    });
    EXPECT_EQ(child.signal, SIGSEGV);
    EXPECT_NE(child.out.find("\nextra 0x"), std::string::npos);
    EXPECT_EQ(child.out.find("died with"), std::string::npos);
  }
}

// --- Broken surroundings.

TEST(CrashReport, WithoutAStackTopTheBacktraceIsEmpty) {
  auto child = test::runInChild([] {
    stackTop = nullptr;
    installCrashReporter();
    callAndReturn(writeToNull);
  });
  EXPECT_EQ(child.exitStatus, 1);
  EXPECT_TRUE(parse(child.out).backtrace.empty());
}

TEST(CrashReport, ADamagedStackEndsTheBacktrace) {
  auto child = dieWithARunner([] {
    volatile auto* frame = static_cast<std::uintptr_t*>(__builtin_frame_address(0));
    frame[0] = 0x10;
    writeToNull();
  });
  EXPECT_EQ(child.exitStatus, 1);
  EXPECT_TRUE(isOnlyTheClosingLine(parse(child.out).rest, SIGSEGV));
}

TEST(CrashReport, AJumpToNowhereHasNoCodeButACaller) {
  auto child = dieWithARunner([] {
    volatile std::uintptr_t nowhere = 16;
    callAndReturn(reinterpret_cast<void (*)()>(nowhere));
  });
  EXPECT_EQ(child.exitStatus, 1);
  const Report report = parse(child.out);
  EXPECT_TRUE(callerIsIn(report) || callerIsInLinkRegister(report));
  EXPECT_TRUE(report.code.empty());
  EXPECT_FALSE(report.maps.empty());
}

TEST(CrashReport, AClosedStandardOutputChangesNothingElse) {
  const auto child = dieWithARunner([] {
    ::close(1);
    writeToNull();
  });
  EXPECT_EQ(child.exitStatus, 1);
  EXPECT_EQ(child.out, "");
}

// The stack of another thread usually lies below that of the first; where it does not, it is out of bounds.
TEST(CrashReport, AForeignThreadIsReportedToo) {
  auto child = dieWithARunner([] {
    std::thread thread([] {
      const bool isBelow = static_cast<const char*>(__builtin_frame_address(0)) < stackTop;
      (void)!::write(2, isBelow ? "below" : "above", 5);
      callAndReturn(writeToNull);
    });
    thread.join();
  });
  EXPECT_EQ(child.exitStatus, 1);
  const Report report = parse(child.out);
  EXPECT_EQ(callerIsIn(report), child.err == "below");
  EXPECT_TRUE(isOnlyTheClosingLine(report.rest, SIGSEGV));
}

TEST(CrashReport, OfTwoThreadsThatCrashOneReports) {
  const auto child = dieWithARunner([] {
    std::thread first(writeToNull);
    std::thread second(abortMission);
    first.join();
    second.join();
  });
  EXPECT_EQ(child.exitStatus, 1) << child.signal;
  EXPECT_EQ(occurrences(child.out, "--- signal="), 1u);
  EXPECT_EQ(occurrences(child.out, "died with signal"), 1u);
}

// A record that keeps its report from going on until the other thread has waited for its turn, and goes on waiting.
class Slow : public BacktraceInfo {
 public:
  void dump(Dumper& out) override {
    if (begun.exchange(true)) return;
    while (pauses < pausesBefore + 3) std::this_thread::yield();
    out.write("the other waits\n", 16);
  }
  std::atomic<bool> begun{false};

 private:
  unsigned int pausesBefore = pauses;
};

TEST(CrashReport, OfTwoThreadsThatReportAtOnceOneWaitsForTheOther) {
  auto child = dieWithARunner([] {
    Slow record;
    std::thread second([&] {
      while (!record.begun) std::this_thread::yield();
      ::raise(SIGUSR2);
    });
    ::raise(SIGUSR2);
    second.join();
  });
  EXPECT_EQ(child.exitStatus, 0) << child.signal;
  EXPECT_EQ(occurrences(child.out, "--- signal=12 "), 2u);
  const std::string first = child.out.substr(0, child.out.find("--- signal=12 ", 100));
  EXPECT_EQ(occurrences(first, "\nthe other waits\n\n\n"), 1u) << child.out;
}

TEST(CrashReport, ACrashInsideMallocIsReported) {
  if (KL_SANITIZED_HEAP)
    GTEST_SKIP() << "the sanitizer's heap stands in the place of the one that is broken here";
  auto child = dieWithARunner([] {
    message inner;
    inner.insert_u32(0x08000005, 7);
    message outer;
    outer.insert_message(0x28000001, inner);
    MessageBacktraceInfo record("void somewhere()", outer);
    std::thread([] {}).join();  // from now on malloc locks
    auto** chunk = static_cast<void**>(std::malloc(5000));
    void* fence = std::malloc(5000);
    void** alias = chunk;
    asm volatile("" : "+r"(alias), "+r"(fence));  // the compiler shall not know what becomes of it
    std::free(chunk);
    alias[1] = reinterpret_cast<void*>(16);  // the list of free chunks now leads nowhere
    (void)!std::malloc(9000);
  });
  EXPECT_TRUE(child.exitStatus == 1 || child.signal == SIGALRM) << child.exitStatus << " " << child.signal;
  const std::string rest = parse(child.out).rest;
  EXPECT_NE(rest.find("\n     u32 [global(5)]=7 0x7 0.0.0.7\n"), std::string::npos)
      << rest;  // of the nested message
  EXPECT_NE(rest.find("\n\ndied with signal 11 on "), std::string::npos) << rest;
}

TEST(CrashReport, AHeapFoundCorruptedIsReported) {
  if (KL_SANITIZED_HEAP)
    GTEST_SKIP() << "the sanitizer's heap stands in the place of the one that is broken here";
  auto child = dieWithARunner([] {
    std::thread([] {}).join();
    auto* chunk = static_cast<char*>(std::malloc(5000));
    void* next = std::malloc(5000);
    asm volatile("" : "+r"(chunk) : : "memory");
    std::memset(chunk, 0x41, 5040);
    std::free(next);
  });
  EXPECT_TRUE(child.exitStatus == 1 || child.signal == SIGALRM) << child.exitStatus << " " << child.signal;
  const Report report = parse(child.out);
  EXPECT_EQ(report.signal, std::to_string(SIGABRT));
  EXPECT_TRUE(isOnlyTheClosingLine(report.rest, SIGABRT));
}

TEST(CrashReport, AnExitThatHangsIsEndedByTheAlarm) {
  auto child = dieWithARunner([] {
    std::atexit([] {
      for (;;) ::pause();
    });
    ::signal(SIGALRM, SIG_IGN);
    sigset_t all;
    ::sigfillset(&all);
    ::sigprocmask(SIG_BLOCK, &all, nullptr);
    writeToNull();
  });
  // A fault whose signal is blocked never reaches a handler, so this process simply dies of it.
  EXPECT_EQ(child.signal, SIGSEGV);
  child = dieWithARunner([] {
    std::atexit([] {
      for (;;) ::pause();
    });
    ::signal(SIGALRM, SIG_IGN);
    sigset_t alarmOnly;
    ::sigemptyset(&alarmOnly);
    ::sigaddset(&alarmOnly, SIGALRM);
    ::sigprocmask(SIG_BLOCK, &alarmOnly, nullptr);
    writeToNull();
  });
  EXPECT_EQ(child.signal, SIGALRM);
  EXPECT_TRUE(isOnlyTheClosingLine(parse(child.out).rest, SIGSEGV));
}

TEST(CrashReport, GoesToTheDeviceWhereThereIsOne) {
  if (!foldersCanBeCovered()) GTEST_SKIP() << "this host allows no mount namespaces";
  auto child = test::runInChild([] {
    if (!coverFolder("/dev") || ::symlink("/proc/self/fd/2", "/dev/log244") != 0) ::_exit(2);
    Runner loop;
    ::raise(SIGUSR2);
    callAndReturn(writeToNull);
  });
  EXPECT_EQ(child.exitStatus, 1);
  EXPECT_EQ(occurrences(child.out, "--- signal=12 "), 1u);
  EXPECT_EQ(occurrences(child.out, "--- signal=11 "), 0u);
  EXPECT_EQ(occurrences(child.out, "died with signal 11 on "), 1u);
  const Report report = parse(child.err);
  EXPECT_EQ(report.signal, "11");
  EXPECT_EQ(report.rest, "\n\n");
}

TEST(CrashReport, WithoutAPathTheProgramIsItsNumber) {
  if (!foldersCanBeCovered()) GTEST_SKIP() << "this host allows no mount namespaces";
  const auto child = test::runInChild([] {
    char expected[40];
    const int size =
        std::snprintf(expected, sizeof expected, "unknown[%08x]", static_cast<unsigned int>(::getpid()));
    (void)!::write(2, expected, static_cast<std::size_t>(size));
    if (!coverFolder("/proc")) ::_exit(2);
    if (char path[8]; ::readlink("/proc/self/exe", path, sizeof path) > 0) ::_exit(77);
    Runner loop;
    writeToNull();
  });
  if (child.exitStatus == 77) GTEST_SKIP() << "an emulator answers for /proc";
  const std::string begin = child.err.substr(0, 17) + "\n--- signal=11 ";
  EXPECT_EQ(child.out.substr(0, begin.size()), begin);
  EXPECT_NE(child.out.find("\n\nmaps:\n\n\ndied with"), std::string::npos);
}

}  // namespace
}  // namespace kl
