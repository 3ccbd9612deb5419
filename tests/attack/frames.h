#pragma once
// frames.h: what an attacker sends.

#include <random>
#include <vector>

#include "kl/message.h"

namespace attack {

using Bytes = std::vector<unsigned char>;

struct Frame {
  Bytes bytes;           // length prefix included, if it has one
  bool afterHello;       // is sent by a registered peer
  bool costsConnection;  // its sender must be disconnected
};

// Makes frames none of which may be delivered to anybody.  Those that are messages name `target` and are marked.
class FrameMaker {
 public:
  FrameMaker(unsigned int seed, unsigned int target) : random_(seed), target_(target) {}

  // Random bytes: bare, behind their length, or behind their length and the two bytes that begin a message.
  Frame random();

  // A message with one thing wrong.
  Frame structured();

 private:
  unsigned int upTo(unsigned int most) {
    return std::uniform_int_distribution<unsigned int>(0, most)(random_);
  }
  Bytes randomBytes(unsigned int most);
  kl::message request();
  Bytes withRepeatedField();
  Bytes truncated();
  Bytes mutated();
  Bytes brokenMulti();
  Bytes withPath(unsigned int first, unsigned int length);
  Bytes withReturnPath(unsigned int length);
  Bytes controlForSomebody();
  Bytes unaskedReply();

  std::mt19937 random_;
  unsigned int target_;
};

}  // namespace attack
