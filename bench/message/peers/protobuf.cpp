// Protocol Buffers with generated code.  Parsing decodes nested messages as well.

#include <google/protobuf/stubs/common.h>

#include "bench/message/peers/peer.h"
#include "messages.pb.h"

namespace bench {
namespace {

void fill(proto::W1& out, const W1Source& source) {
  for (const unsigned int hop : source.to) out.add_to(hop);
  for (const unsigned int hop : source.from) out.add_from(hop);
  out.set_type(source.type);
  out.set_request_id(source.requestId);
  out.set_command(source.command);
  out.set_policy(source.policy);
  out.set_object(source.object);
  out.set_speed(source.speed);
  out.set_reply_expected(source.replyExpected);
  out.set_user(source.user);
}

void fill(proto::W2& out, const W2Source& source) {
  out.set_number0(source.numbers[0]);
  out.set_number1(source.numbers[1]);
  out.set_number2(source.numbers[2]);
  out.set_number3(source.numbers[3]);
  out.set_number4(source.numbers[4]);
  out.set_number5(source.numbers[5]);
  out.set_number6(source.numbers[6]);
  out.set_number7(source.numbers[7]);
  out.set_flag0(source.flags[0]);
  out.set_flag1(source.flags[1]);
  out.set_flag2(source.flags[2]);
  out.set_flag3(source.flags[3]);
  out.set_text0(source.texts[0]);
  out.set_text1(source.texts[1]);
  out.set_text2(source.texts[2]);
  out.set_text3(source.texts[3]);
  out.set_bytes_in(source.bytesIn);
  out.set_address(&source.address, sizeof(source.address));
  out.set_key(source.key.data(), source.key.size());
  fill(*out.mutable_origin(), source.origin);
}

void fill(proto::W3& out, const std::vector<W2Source>& source) {
  for (const W2Source& object : source) fill(*out.add_objects(), object);
}

unsigned long long endsOfText(const std::string& text) { return endsOf(text.data(), text.size()); }

template <class Path>
unsigned long long sumOfPath(const Path& path) {
  auto sum = static_cast<unsigned long long>(path.size());
  for (const unsigned int hop : path) sum += hop;
  return sum;
}

unsigned long long sumOf(const proto::W1& in) {
  unsigned long long sum = sumOfPath(in.to()) + sumOfPath(in.from());
  sum += in.type();
  sum += in.request_id();
  sum += in.command();
  sum += in.policy();
  sum += in.object();
  sum += in.speed();
  sum += in.reply_expected() ? 1 : 0;
  return sum + endsOfText(in.user());
}

unsigned long long sumOf(const proto::W2& in) {
  unsigned long long sum = in.bytes_in();
  for (const unsigned int number : {in.number0(), in.number1(), in.number2(), in.number3(), in.number4(),
                                    in.number5(), in.number6(), in.number7()})
    sum += number;
  for (const bool flag : {in.flag0(), in.flag1(), in.flag2(), in.flag3()}) sum += flag ? 1 : 0;
  for (const std::string* text : {&in.text0(), &in.text1(), &in.text2(), &in.text3()})
    sum += endsOfText(*text);
  return sum + endsOfText(in.address()) + endsOfText(in.key()) + sumOf(in.origin());
}

unsigned long long sumOf(const proto::W3& in) {
  auto sum = static_cast<unsigned long long>(in.objects_size());
  for (const proto::W2& object : in.objects()) sum += sumOf(object);
  return sum;
}

template <class Message, class Source>
class Work : public PeerWork {
 public:
  explicit Work(const Source& source) : source_(source) {}

  std::size_t buildAndFlatten() override {
    Message built;
    fill(built, source_);
    return built.SerializeToString(&bytes_) ? bytes_.size() : 0;
  }
  bool parse() override {
    Message parsed;
    return parsed.ParseFromString(bytes_);
  }
  unsigned long long parseAndRead() override {
    Message parsed;
    return parsed.ParseFromString(bytes_) ? sumOf(parsed) : 0;
  }
  void parseAndKeep() override { (void)kept_.ParseFromString(bytes_); }
  void copy() override { const Message copy(kept_); }
  unsigned long long copyAndRead() override {
    const Message copy(kept_);
    return sumOf(copy);
  }

 private:
  Source source_;
  std::string bytes_;
  Message kept_;
};

class Protobuf : public Peer {
 public:
  std::string name() const override { return "protobuf"; }
  std::string version() const override {
    return google::protobuf::internal::VersionString(GOOGLE_PROTOBUF_VERSION);
  }
  std::unique_ptr<PeerWork> work(const W1Source& source) const override {
    return std::make_unique<Work<proto::W1, W1Source>>(source);
  }
  std::unique_ptr<PeerWork> work(const W2Source& source) const override {
    return std::make_unique<Work<proto::W2, W2Source>>(source);
  }
  std::unique_ptr<PeerWork> work(const std::vector<W2Source>& source) const override {
    return std::make_unique<Work<proto::W3, std::vector<W2Source>>>(source);
  }
};

const Protobuf protobuf;
[[maybe_unused]] const bool added = addPeer(protobuf);

}  // namespace
}  // namespace bench
