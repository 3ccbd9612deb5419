// The process becomes the user of the service before it opens the program, and gives up what it cannot do silently: a
// crash is told with or without a name.

#include "crashes/symbols.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "crashes/elf_file.h"
#include "services/common/new_process.h"
#include "services/common/text.h"

namespace loader {
namespace {

constexpr std::size_t kMostText = 16 * 1024;
constexpr std::size_t kMostName = 200;
constexpr rlim_t kMostMemory = 1024UL * 1024 * 1024;

void limitItself() {
  const rlimit memory{kMostMemory, kMostMemory};
  const rlimit seconds{Symbols::kSeconds, Symbols::kSeconds};
  const rlimit none{0, 0};
  (void)::setrlimit(RLIMIT_AS, &memory);
  (void)::setrlimit(RLIMIT_CPU, &seconds);
  (void)::setrlimit(RLIMIT_CORE, &none);
  common::resetSignals();
  ::alarm(Symbols::kSeconds);
}

void arrangeForAnswer(int answers) {
  const int nothing = ::open("/dev/null", O_RDWR);
  if (nothing < 0 || ::dup2(nothing, STDIN_FILENO) < 0 || ::dup2(nothing, STDERR_FILENO) < 0 ||
      ::dup2(answers, STDOUT_FILENO) < 0)
    ::_exit(1);
  common::closeFrom(STDERR_FILENO + 1);
}

std::string linkAddressOf(const Place& place) {
  const common::Descriptor file(::open(place.program.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  const auto elf = file.isOpen() ? ElfFile::read(file.get()) : std::nullopt;
  const auto address = elf ? elf->linkAddress(place.offset) : std::nullopt;
  if (!address || elf->buildId() != place.buildId) ::_exit(1);
  char text[32];
  (void)std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(*address));
  return text;
}

[[noreturn]] void runAsker(const Place& place, int answers, pid_t loader) {
  limitItself();
  arrangeForAnswer(answers);
  if (!place.groups.empty() && !common::becomeUser(place.user, place.groups)) ::_exit(1);
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != loader) ::_exit(1);
  const std::string address = linkAddressOf(place);
  ::execlp("addr2line", "addr2line", "--exe", place.program.c_str(), "--functions", "--demangle", "--inlines",
           address.c_str(), nullptr);
  ::_exit(1);
}

std::string_view cutLine(std::string_view& text) {
  const std::string_view line = text.substr(0, text.find('\n'));
  text.remove_prefix(std::min(line.size() + 1, text.size()));
  return line;
}

bool isKnown(std::string_view text) { return !text.empty() && !text.starts_with("??"); }

bool isOfSystem(std::string_view file) {
  return file.starts_with("/usr/include/") || file.starts_with("/usr/lib/") ||
         file.find("/include/c++/") != std::string_view::npos;
}

// Without the arguments, which tell the reader of one line little: "leases::Leases::cmdGetObj".
std::string_view withoutArguments(std::string_view function) {
  std::size_t end = function.size();
  if (function.ends_with(" const")) end -= 6;
  if (end == 0 || function[end - 1] != ')') return function;
  std::size_t depth = 0;
  for (std::size_t at = end; at > 0; --at) {
    if (function[at - 1] == ')') ++depth;
    if (function[at - 1] == '(' && --depth == 0) return at > 1 ? function.substr(0, at - 1) : function;
  }
  return function;
}

// "/src/leases.cpp:175 (discriminator 2)" becomes "leases.cpp:175".
std::string_view shortPlace(std::string_view place) {
  place = place.substr(0, place.find(" ("));
  return place.substr(place.rfind('/') + 1);
}

std::string nameFrom(std::string_view function, std::string_view place) {
  std::string name;
  if (isKnown(place)) name = std::string(shortPlace(place)) + " ";
  return common::printable((name + std::string(withoutArguments(function))).substr(0, kMostName));
}

}  // namespace

Symbols::~Symbols() {
  if (pipe_.isOpen()) runner_.removeSocket(pipe_.get());
}

void Symbols::ask(const Place& place, Answer answer) {
  if (questions_.size() > kMostWaiting) return answer({});
  questions_.push_back({place, std::move(answer)});
  if (questions_.size() == 1) askNext();
}

void Symbols::askNext() {
  while (!questions_.empty() && !start(questions_.front().place)) {
    const Answer answer = std::move(questions_.front().answer);
    questions_.pop_front();
    answer({});
  }
}

bool Symbols::start(const Place& place) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return false;
  common::Descriptor reader(ends[0]);
  const common::Descriptor writer(ends[1]);
  (void)::fcntl(reader.get(), F_SETFL, O_NONBLOCK);
  const pid_t loader = ::getpid();
  pid_t pid = -1;
  {
    const common::BlockedSignals blocked;
    pid = ::fork();
    if (pid == 0) runAsker(place, writer.get(), loader);
  }
  if (pid < 0) return false;
  text_.clear();
  pipe_ = std::move(reader);
  runner_.addSocket(pipe_.get(), this, kl::bind<Symbols, &Symbols::onReadable>(), POLLIN);
  return true;
}

void Symbols::onReadable(int fd, unsigned int) {
  char bytes[4096];
  const ssize_t count = ::read(fd, bytes, sizeof bytes);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count > 0) text_.append(bytes, static_cast<std::size_t>(count));
  if (count <= 0 || text_.size() > kMostText) finish();
}

void Symbols::finish() {
  runner_.removeSocket(pipe_.get());
  pipe_.close();
  const Question question = std::move(questions_.front());
  questions_.pop_front();
  question.answer(nameIn(text_));
  askNext();
}

std::string nameIn(std::string_view lines) {
  std::string first;
  while (!lines.empty()) {
    const std::string_view function = cutLine(lines);
    const std::string_view place = cutLine(lines);
    if (!isKnown(function)) continue;
    if (!isOfSystem(place)) return nameFrom(function, place);
    if (first.empty()) first = nameFrom(function, place);
  }
  return first;
}

}  // namespace loader
