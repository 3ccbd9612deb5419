// MessagePack: a map of ids to values, which is read in one walk over it in whatever order the ids stand.  What is
// unpacked owns its texts and bytes; nested messages are decoded at once.

#define MSGPACK_NO_BOOST
#include <msgpack.hpp>

#include <stdexcept>

#include "bench/message/peers/peer.h"

namespace bench {
namespace {

using Packer = msgpack::packer<msgpack::sbuffer>;

void pack(Packer& to, const W1Source& source) {
  to.pack_map(10);
  to.pack(id::kTo).pack(source.to);
  to.pack(id::kFrom).pack(source.from);
  to.pack(id::kType).pack(source.type);
  to.pack(id::kRequestId).pack(source.requestId);
  to.pack(id::kCommand).pack(source.command);
  to.pack(id::kPolicy).pack(source.policy);
  to.pack(id::kObject).pack(source.object);
  to.pack(id::kSpeed).pack(source.speed);
  to.pack(id::kReplyExpected).pack(source.replyExpected);
  to.pack(id::kUser).pack(source.user);
}

void packBytes(Packer& to, unsigned int id, const void* bytes, std::size_t size) {
  to.pack(id).pack_bin(static_cast<std::uint32_t>(size));
  to.pack_bin_body(static_cast<const char*>(bytes), static_cast<std::uint32_t>(size));
}

void pack(Packer& to, const W2Source& source) {
  to.pack_map(20);
  for (unsigned int i = 0; i < 8; ++i) to.pack(id::kNumber + i).pack(source.numbers[i]);
  for (unsigned int i = 0; i < 4; ++i) to.pack(id::kFlag + i).pack(source.flags[i]);
  for (unsigned int i = 0; i < 4; ++i) to.pack(id::kText + i).pack(source.texts[i]);
  to.pack(id::kBytesIn).pack(source.bytesIn);
  packBytes(to, id::kAddress, &source.address, sizeof(source.address));
  packBytes(to, id::kKey, source.key.data(), source.key.size());
  pack(to.pack(id::kOrigin), source.origin);
}

void pack(Packer& to, const std::vector<W2Source>& source) {
  to.pack_map(1).pack(id::kObjects).pack_array(static_cast<std::uint32_t>(source.size()));
  for (const W2Source& object : source) pack(to, object);
}

unsigned long long sumOfPath(const msgpack::object& path) {
  unsigned long long sum = path.via.array.size;
  for (std::uint32_t i = 0; i < path.via.array.size; ++i) sum += path.via.array.ptr[i].via.u64;
  return sum;
}

unsigned long long sumOf(const msgpack::object& in);

// One value, whose type says how it counts; a path is an array of numbers, objects are one of maps.
unsigned long long sumOfValue(const msgpack::object& value) {
  switch (value.type) {
    case msgpack::type::POSITIVE_INTEGER: return value.via.u64;
    case msgpack::type::BOOLEAN: return value.via.boolean ? 1 : 0;
    case msgpack::type::STR: return endsOf(value.via.str.ptr, value.via.str.size);
    case msgpack::type::BIN: return endsOf(value.via.bin.ptr, value.via.bin.size);
    case msgpack::type::MAP: return sumOf(value);
    default: throw std::runtime_error("a value of an unknown type");
  }
}

unsigned long long sumOfObjects(const msgpack::object& objects) {
  unsigned long long sum = objects.via.array.size;
  for (std::uint32_t i = 0; i < objects.via.array.size; ++i) sum += sumOf(objects.via.array.ptr[i]);
  return sum;
}

// The walk: only of an array the type does not say what it holds.
unsigned long long sumOf(const msgpack::object& in) {
  unsigned long long sum = 0;
  for (std::uint32_t i = 0; i < in.via.map.size; ++i) {
    const msgpack::object_kv& field = in.via.map.ptr[i];
    switch (field.key.via.u64) {
      case id::kTo:
      case id::kFrom: sum += sumOfPath(field.val); break;
      case id::kObjects: sum += sumOfObjects(field.val); break;
      default: sum += sumOfValue(field.val);
    }
  }
  return sum;
}

template <class Source>
class Work : public PeerWork {
 public:
  explicit Work(const Source& source) : source_(source) {}

  std::size_t buildAndFlatten() override {
    bytes_.clear();
    Packer to(bytes_);
    pack(to, source_);
    return bytes_.size();
  }
  bool parse() override { return unpacked().get().type == msgpack::type::MAP; }
  unsigned long long parseAndRead() override { return sumOf(unpacked().get()); }
  void parseAndKeep() override { kept_ = unpacked(); }
  void copy() override { const msgpack::object_handle copy = msgpack::clone(kept_.get()); }
  unsigned long long copyAndRead() override { return sumOf(msgpack::clone(kept_.get()).get()); }

 private:
  msgpack::object_handle unpacked() const { return msgpack::unpack(bytes_.data(), bytes_.size()); }

  Source source_;
  msgpack::sbuffer bytes_;
  msgpack::object_handle kept_;
};

class MessagePack : public Peer {
 public:
  std::string name() const override { return "msgpack"; }
  std::string version() const override { return msgpack_version(); }
  std::unique_ptr<PeerWork> work(const W1Source& source) const override {
    return std::make_unique<Work<W1Source>>(source);
  }
  std::unique_ptr<PeerWork> work(const W2Source& source) const override {
    return std::make_unique<Work<W2Source>>(source);
  }
  std::unique_ptr<PeerWork> work(const std::vector<W2Source>& source) const override {
    return std::make_unique<Work<std::vector<W2Source>>>(source);
  }
};

const MessagePack messagePack;
[[maybe_unused]] const bool added = addPeer(messagePack);

}  // namespace
}  // namespace bench
