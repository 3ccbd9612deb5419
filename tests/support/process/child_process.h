#pragma once
// tests/support/process/child_process.h: a function in a process beside the test, and what the two say to each other.

#include <sys/types.h>

#include <array>
#include <functional>
#include <optional>
#include <type_traits>

namespace kl::test {

// A fork of the test that runs a function.  The destructor kills it unless its end was waited for, and it does not
// outlive the thread that started it, however that ends; one that becomes another user takes care of the latter itself.
//
//     Pipe ready;
//     ChildProcess peer([&] {
//       ...
//       ready.say('!');
//       ::pause();
//     });
//     ASSERT_TRUE(ready.hear<char>());
//     EXPECT_EQ(peer.end(SIGTERM), 128 + SIGTERM);
class ChildProcess {
 public:
  static constexpr int kPatienceMs = 60000;

  // A child that comes back from `body` ends at once: with status 0, or 1 when an expectation failed.
  explicit ChildProcess(const std::function<void()>& body);
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&&) = delete;
  ~ChildProcess();

  pid_t pid() const { return pid_; }  // -1 after its end was waited for

  void signal(int number) const;
  bool hasEnded() const;

  // Waits until it has stopped; false when it ends instead.
  bool stops() const;

  // Waits for its end: the exit status, 128 and the signal's number, or -1 when it does not come in time.
  int waitForEnd(int deadlineMs = kPatienceMs);
  // Sends the signal before.
  int end(int number);

 private:
  pid_t pid_ = -1;
};

// Carries values from one process to another, in their order.  Needs: it is made before the fork, and each of the two
// does the same from then on.
class Pipe {
 public:
  Pipe();
  ~Pipe();
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  template <class T>
  void say(const T& value) const {
    static_assert(std::is_trivially_copyable_v<T>);
    write(&value, sizeof value);
  }

  // Waits for the next value; nothing when the other process has ended, or nothing comes in time.
  template <class T>
  std::optional<T> hear(int deadlineMs = ChildProcess::kPatienceMs) {
    T value;
    return read(&value, sizeof value, deadlineMs) ? std::optional(value) : std::nullopt;
  }

 private:
  void write(const void* bytes, std::size_t count) const;
  bool read(void* bytes, std::size_t count, int deadlineMs);

  std::array<int, 2> ends_;
};

// Runs a part of a test as another user, in a process of its own; true when that is allowed and the part holds.
bool holdsAs(uid_t user, const std::function<bool()>& part);

}  // namespace kl::test
