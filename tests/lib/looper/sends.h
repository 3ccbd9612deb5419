#pragma once
// tests/lib/looper/sends.h: the calls of send(2) by which a process writes to its loader.  A program that uses this
// defines send() itself.

#include <cstddef>
#include <vector>

namespace kl::test {

// While it lives, the sizes of what is given to send() for `fd` are kept.  At most one at a time.
class Sends {
 public:
  explicit Sends(int fd);
  ~Sends();
  Sends(const Sends&) = delete;
  Sends& operator=(const Sends&) = delete;

  const std::vector<std::size_t>& sizes() const;
  void forget();
};

// Until it is said otherwise, no call takes anything.
void letSendsTakeNothing(bool nothing);

}  // namespace kl::test
