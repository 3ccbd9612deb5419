#pragma once
// model_life.h: messages beside their models, through whatever happens to both.

#include <functional>

#include "message/rep.h"
#include "tests/lib/message/model.h"

namespace kl::test {

// A few messages and their models, which the same operations happen to; what happens is chosen outside.
class Life {
 public:
  // Gives 0 to n, both included.
  using Choose = std::function<unsigned int(unsigned int n)>;

  // Ids are taken from so many numbers.
  Life(Choose choose, unsigned int idRange) : choose_(std::move(choose)), idRange_(idRange) {}

  // One operation on both sides.
  void step();
  // Both sides are the same: values, order, sharing, comparison.  Fails the test that runs.
  void check() const;

 private:
  static constexpr unsigned int kMessages = 4;

  unsigned int word() { return upTo(0xFFFFFFFF); }
  unsigned int upTo(unsigned int n) { return choose_(n); }
  // Now and then an id whose type bits are another value's.
  unsigned int idFor(unsigned int typeBits);
  unsigned int tableId(unsigned int typeBits) {
    return typeBits | upTo(idRange_) * (upTo(1) == 0 ? 1 : 22) | space();
  }
  unsigned int space() { return upTo(3) == 0 ? 0x00FE0000 : 0; }
  std::string text();
  Bytes someBytes();
  Value randomValue();

  void insertValue();
  void changeThroughReference();
  void readThroughReference();
  void remove();
  void removeByMask();
  void handleStep();
  void readBytes();
  void assign(unsigned int i, const message& m, const ModelMessage& model);
  template <class T>
  static void checkSlots(const ModelTable& expected, const htable<T>& actual);

  Choose choose_;
  unsigned int idRange_;
  message actual_[kMessages];
  ModelMessage expected_[kMessages];
};

}  // namespace kl::test
