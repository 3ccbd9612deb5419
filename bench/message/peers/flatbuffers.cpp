// FlatBuffers with generated code.  A message is built once and read where it stands: parsing is the check that no
// offset leads outside.  The builder keeps its memory from one message to the next, and writes default values, too, so
// that it carries as much as the others.

#include <flatbuffers/flatbuffers.h>

#include "bench/message/peers/peer.h"
#include "messages_generated.h"

namespace bench {
namespace {

using Builder = flatbuffers::FlatBufferBuilder;

flatbuffers::Offset<flat::W1> make(Builder& to, const W1Source& source) {
  const auto path = to.CreateVector(source.to);
  const auto from = to.CreateVector(source.from);
  const auto user = to.CreateString(source.user);
  return flat::CreateW1(to, path, from, source.type, source.requestId, source.command, source.policy,
                        source.object, source.speed, source.replyExpected, user);
}

flatbuffers::Offset<flat::W2> make(Builder& to, const W2Source& source) {
  flatbuffers::Offset<flatbuffers::String> texts[4];
  for (unsigned int i = 0; i < 4; ++i) texts[i] = to.CreateString(source.texts[i]);
  const auto address =
      to.CreateVector(reinterpret_cast<const unsigned char*>(&source.address), sizeof(source.address));
  const auto key = to.CreateVector(source.key);
  const auto origin = make(to, source.origin);
  return flat::CreateW2(to, source.numbers[0], source.numbers[1], source.numbers[2], source.numbers[3],
                        source.numbers[4], source.numbers[5], source.numbers[6], source.numbers[7],
                        source.flags[0], source.flags[1], source.flags[2], source.flags[3], texts[0],
                        texts[1], texts[2], texts[3], source.bytesIn, address, key, origin);
}

flatbuffers::Offset<flat::W3> make(Builder& to, const std::vector<W2Source>& source) {
  std::vector<flatbuffers::Offset<flat::W2>> objects;
  objects.reserve(source.size());
  for (const W2Source& object : source) objects.push_back(make(to, object));
  return flat::CreateW3(to, to.CreateVector(objects));
}

template <class Bytes>
unsigned long long endsOfAll(const Bytes& bytes) {
  return endsOf(bytes.Data(), bytes.size());
}

unsigned long long sumOfPath(const flatbuffers::Vector<std::uint32_t>& path) {
  unsigned long long sum = path.size();
  for (const unsigned int hop : path) sum += hop;
  return sum;
}

unsigned long long sumOf(const flat::W1& in) {
  unsigned long long sum = sumOfPath(*in.to()) + sumOfPath(*in.from());
  sum += in.type();
  sum += in.request_id();
  sum += in.command();
  sum += in.policy();
  sum += in.object();
  sum += in.speed();
  sum += in.reply_expected() ? 1 : 0;
  return sum + endsOfAll(*in.user());
}

unsigned long long sumOf(const flat::W2& in) {
  unsigned long long sum = in.bytes_in();
  for (const unsigned int number : {in.number0(), in.number1(), in.number2(), in.number3(), in.number4(),
                                    in.number5(), in.number6(), in.number7()})
    sum += number;
  for (const bool flag : {in.flag0(), in.flag1(), in.flag2(), in.flag3()}) sum += flag ? 1 : 0;
  for (const auto* text : {in.text0(), in.text1(), in.text2(), in.text3()}) sum += endsOfAll(*text);
  return sum + endsOfAll(*in.address()) + endsOfAll(*in.key()) + sumOf(*in.origin());
}

unsigned long long sumOf(const flat::W3& in) {
  unsigned long long sum = in.objects()->size();
  for (const flat::W2* object : *in.objects()) sum += sumOf(*object);
  return sum;
}

template <class Table, class Source>
class Work : public PeerWork {
 public:
  explicit Work(const Source& source) : source_(source) { builder_.ForceDefaults(true); }

  std::size_t buildAndFlatten() override {
    builder_.Clear();
    builder_.Finish(make(builder_, source_));
    return builder_.GetSize();
  }
  bool parse() override {
    flatbuffers::Verifier verifier(builder_.GetBufferPointer(), builder_.GetSize());
    return verifier.VerifyBuffer<Table>(nullptr);
  }
  unsigned long long parseAndRead() override {
    return parse() ? sumOf(*flatbuffers::GetRoot<Table>(builder_.GetBufferPointer())) : 0;
  }
  void parseAndKeep() override {
    kept_.assign(builder_.GetBufferPointer(), builder_.GetBufferPointer() + builder_.GetSize());
  }
  void copy() override { const std::vector<unsigned char> copy(kept_); }
  unsigned long long copyAndRead() override {
    const std::vector<unsigned char> copy(kept_);
    return sumOf(*flatbuffers::GetRoot<Table>(copy.data()));
  }

 private:
  Source source_;
  Builder builder_;
  std::vector<unsigned char> kept_;
};

class FlatBuffers : public Peer {
 public:
  std::string name() const override { return "flatbuffers"; }
  std::string version() const override {
    return std::to_string(FLATBUFFERS_VERSION_MAJOR) + "." + std::to_string(FLATBUFFERS_VERSION_MINOR) + "." +
           std::to_string(FLATBUFFERS_VERSION_REVISION);
  }
  std::unique_ptr<PeerWork> work(const W1Source& source) const override {
    return std::make_unique<Work<flat::W1, W1Source>>(source);
  }
  std::unique_ptr<PeerWork> work(const W2Source& source) const override {
    return std::make_unique<Work<flat::W2, W2Source>>(source);
  }
  std::unique_ptr<PeerWork> work(const std::vector<W2Source>& source) const override {
    return std::make_unique<Work<flat::W3, std::vector<W2Source>>>(source);
  }
};

const FlatBuffers flatBuffers;
[[maybe_unused]] const bool added = addPeer(flatBuffers);

}  // namespace
}  // namespace bench
