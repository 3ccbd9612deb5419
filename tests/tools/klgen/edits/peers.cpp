// Each message is filled field by field, each field there or absent.  The same message must come back.

#include "tests/tools/klgen/edits/peers.h"

#include "sample.kl.h"
#include "sample_next.kl.h"

namespace edits {
namespace {

template <class T>
T madeOf(Random& random);
template <>
bool madeOf(Random& random) {
  return random() % 2 == 0;
}
template <>
unsigned int madeOf(Random& random) {
  return static_cast<unsigned int>(random() % 4 == 0 ? random() : random() % 8);
}
template <>
unsigned long long madeOf(Random& random) {
  return random() % 2 == 0 ? random() : static_cast<unsigned long long>(random()) << 32;
}
template <>
kl::IPAddr6 madeOf(Random& random) {
  kl::IPAddr6 address{};
  address.bytes[random() % 16] = static_cast<unsigned char>(random());
  return address;
}
template <>
std::string madeOf(Random& random) {
  return std::string(random() % 300, static_cast<char>('a' + random() % 26));
}
template <>
std::vector<unsigned char> madeOf(Random& random) {
  return std::vector<unsigned char>(random() % 20, static_cast<unsigned char>(random()));
}
template <>
kl::message::flat_message madeOf(Random& random) {
  kl::message inner;
  inner.insert_u32(0x08000001, madeOf<unsigned int>(random));
  return inner.flattened();
}

template <class T>
struct Made {
  static T by(Random& random) { return madeOf<T>(random); }
};
template <class Element>
struct Made<std::vector<Element>> {
  static std::vector<Element> by(Random& random) {
    std::vector<Element> all;
    for (unsigned int i = 0; i < random() % 4; ++i) all.push_back(madeOf<Element>(random));
    return all;
  }
};
template <>
struct Made<std::vector<unsigned char>> {
  static std::vector<unsigned char> by(Random& random) { return madeOf<std::vector<unsigned char>>(random); }
};
template <>
struct Made<kl::message::flat_message> {
  static kl::message::flat_message by(Random& random) { return madeOf<kl::message::flat_message>(random); }
};

template <class T>
void fillPerhaps(Random& random, kl::message& m, kl::field<T> field, bool must = false) {
  if (must || random() % 2 == 0) m.insert(field, Made<T>::by(random));
}

// The fields that both versions know.
kl::message commonMessage(Random& random) {
  using namespace sample;
  kl::message m;
  fillPerhaps(random, m, ID, true);
  fillPerhaps(random, m, KIND, true);
  fillPerhaps(random, m, STATE);
  fillPerhaps(random, m, UP);
  fillPerhaps(random, m, BYTES);
  fillPerhaps(random, m, ADDRESS);
  fillPerhaps(random, m, HOST);
  fillPerhaps(random, m, REQUEST);
  fillPerhaps(random, m, MAC);
  fillPerhaps(random, m, FLAGS);
  fillPerhaps(random, m, HOPS);
  fillPerhaps(random, m, TOTALS);
  fillPerhaps(random, m, ADDRESSES);
  fillPerhaps(random, m, NAMES);
  fillPerhaps(random, m, PARTS);
  fillPerhaps(random, m, KEYS);
  fillPerhaps(random, m, CLASS);
  return m;
}

// The fields that one version has beside those.
void fillOlder(Random& random, kl::message& m) { fillPerhaps(random, m, sample::EOF_); }
void fillNewer(Random& random, kl::message& m) {
  fillPerhaps(random, m, sample_next::COLOUR);
  fillPerhaps(random, m, sample_next::MORE_NAMES);
}

bool areSame(const sample::Thing& a, const sample_next::Thing& b) {
  return a.id == b.id && static_cast<unsigned int>(a.kind) == static_cast<unsigned int>(b.kind) &&
         a.state.has_value() == b.state.has_value() &&
         static_cast<unsigned int>(a.state.value_or(sample::State())) ==
             static_cast<unsigned int>(b.state.value_or(sample_next::State())) &&
         a.up == b.up && a.bytes == b.bytes && a.address == b.address && a.host == b.host_name &&
         a.request == b.request && a.mac == b.mac && a.flags == b.flags && a.hops == b.hops &&
         a.totals == b.totals && a.addresses == b.addresses && a.names == b.names && a.parts == b.parts &&
         a.keys == b.keys && a.class_ == b.class_;
}

template <class From, class To>
std::string differenceOf(const kl::message& m) {
  const From sent = From::fromMessage(m);
  if (sent.toMessage() != m) return "the sender has changed it: ";
  const To got = To::fromMessage(sent.toMessage());
  if (got.toMessage() != m) return "the receiver has changed it: ";
  bool same = false;
  if constexpr (std::is_same_v<From, sample::Thing>) same = areSame(sent, got);
  else same = areSame(got, sent);
  return same ? "" : "the receiver reads something else: ";
}

}  // namespace

std::string differenceOfPeers(Random& random, unsigned int messages) {
  for (unsigned int i = 0; i < messages; ++i) {
    kl::message m = commonMessage(random);
    const bool isOlder = i % 2 == 0;
    if (isOlder) fillOlder(random, m);
    else fillNewer(random, m);
    const std::string difference = isOlder ? differenceOf<sample::Thing, sample_next::Thing>(m)
                                           : differenceOf<sample_next::Thing, sample::Thing>(m);
    if (!difference.empty()) return difference + "message " + std::to_string(i);
  }
  return {};
}

}  // namespace edits
