// Getters, inserts and removals of single values, and the arrays that most messages have: paths, which are u32, and
// nested messages.

#include <cstdio>
#include <cstdlib>

#include "message/access.h"

namespace kl {
namespace {

using container::Kind;
using container::Node;

constexpr bool kSharedFalse = false;

// The scratch value of a reference getter for the two ids that no table holds.
template <class T>
[[gnu::cold]] T* scratchValue() {
  thread_local T scratch;
  scratch = T{};
  return &scratch;
}

const Node& nodeOf(const message& m, Kind kind, unsigned int id) {
  const Node* node = RepAccess::read(m).find(kind, id);
  if (node == nullptr) reportMissing(id);
  return *node;
}

}  // namespace

const void* objectOf(const message& m, Kind kind, unsigned int id) {
  const Node& node = nodeOf(m, kind, id);
  RepAccess::read(m).hasObjects.store(true, std::memory_order_relaxed);
  return container::objectIn(node);
}

void reportMissing(unsigned int id) {
  std::fprintf(stderr, "message: const reference to field 0x%08x, which the message does not hold\n", id);
  std::abort();
}

// --- Getters by value ------------------------------------------------------------------------------------

bool message::get_bool(unsigned int id, bool def) const {
  if (isReservedKey(id)) return def;
  const bool* v = RepAccess::read(*this).findBool(id);
  return v != nullptr ? *v : def;
}

unsigned int message::get_u32(unsigned int id, unsigned int def) const {
  return RepAccess::read(*this).u32s.get(id, def);
}

unsigned int message::get_be32(unsigned int id, unsigned int def) const {
  const unsigned int* v = RepAccess::read(*this).u32s.get(id);
  return v != nullptr ? byteReversed(*v) : def;
}

unsigned long long message::get_u64(unsigned int id, unsigned long long def) const {
  const Node* node = RepAccess::read(*this).find(Kind::u64, id);
  return node != nullptr ? *node->u64() : def;
}

IPAddr6 message::get_addr6(unsigned int id, const IPAddr6& def) const {
  const Node* node = RepAccess::read(*this).find(Kind::addr6, id);
  return node != nullptr ? *node->addr6() : def;
}

std::string message::get_string(unsigned int id, const std::string& def) const {
  return valueOr<Kind::string>(*this, id, def);
}

std::vector<unsigned char> message::get_raw(unsigned int id, const std::vector<unsigned char>& def) const {
  return valueOr<Kind::raw>(*this, id, def);
}

message::flat_message message::get_message(unsigned int id, const flat_message& def) const {
  return valueOr<Kind::message>(*this, id, def);
}

// --- Getters in place ------------------------------------------------------------------------------------

message::Stored message::stored(unsigned int id, unsigned int typeBits) const {
  const Node* node = RepAccess::read(*this).find(container::kindOf(typeBits), id);
  if (node == nullptr) return {};
  if (node->kind != Kind::u32Array || !node->hasObject()) {
    const container::Span bytes = container::bytesOf(*node);
    return {bytes.data, static_cast<unsigned int>(bytes.size), true, false};
  }
  const std::vector<unsigned int>& numbers = *node->objectIfAny<Kind::u32Array>();
  return {reinterpret_cast<const unsigned char*>(numbers.data()),
          static_cast<unsigned int>(4 * numbers.size()), true, true};
}

// --- Const reference getters -----------------------------------------------------------------------------

const bool* message::get_bool_ref(unsigned int id) const {
  const bool* v = isReservedKey(id) ? nullptr : RepAccess::read(*this).findBool(id);
  return v != nullptr ? v : &kSharedFalse;
}

[[gnu::noinline]] const unsigned int* message::get_u32_ref(unsigned int id) const {
  return RepAccess::read(*this).u32s.get(id);
}

const unsigned long long* message::get_u64_ref(unsigned int id) const {
  return nodeOf(*this, Kind::u64, id).u64();
}

const IPAddr6* message::get_addr6_ref(unsigned int id) const {
  return nodeOf(*this, Kind::addr6, id).addr6();
}

const std::string* message::get_string_ref(unsigned int id) const {
  return constRef<Kind::string>(*this, id);
}

const std::vector<unsigned char>* message::get_raw_ref(unsigned int id) const {
  return constRef<Kind::raw>(*this, id);
}

const message::flat_message* message::get_message_ref(unsigned int id) const {
  return constRef<Kind::message>(*this, id);
}

// --- Non-const reference getters -------------------------------------------------------------------------

bool* message::get_bool_ref(unsigned int id) {
  Rep& rep = ownForGood(*this);
  return isReservedKey(id) ? scratchValue<bool>() : &rep.boolRef(id);
}

unsigned int* message::get_u32_ref(unsigned int id) {
  Rep& rep = ownForGood(*this);
  return isReservedKey(id) ? scratchValue<unsigned int>() : &rep.u32Ref(id);
}

unsigned long long* message::get_u64_ref(unsigned int id) {
  return ownForGood(*this).nodeRef(Kind::u64, id).u64();
}

IPAddr6* message::get_addr6_ref(unsigned int id) {
  return ownForGood(*this).nodeRef(Kind::addr6, id).addr6();
}

std::string* message::get_string_ref(unsigned int id) {
  return ownForGood(*this).objectRef<Kind::string>(id);
}

std::vector<unsigned char>* message::get_raw_ref(unsigned int id) {
  return ownForGood(*this).objectRef<Kind::raw>(id);
}

message::flat_message* message::get_message_ref(unsigned int id) {
  return ownForGood(*this).objectRef<Kind::message>(id);
}

// --- Inserts ---------------------------------------------------------------------------------------------

void message::insert_bool(unsigned int id, bool v) {
  Rep& rep = RepAccess::own(*this);
  if (!isReservedKey(id)) rep.boolRef(id) = v;
}

void message::insert_u32(unsigned int id, unsigned int v) {
  Rep& rep = RepAccess::own(*this);
  if (!isReservedKey(id)) rep.u32Ref(id) = v;
}

void message::insert_u64(unsigned int id, unsigned long long v) {
  *RepAccess::own(*this).nodeRef(Kind::u64, id).u64() = v;
}

void message::insert_addr6(unsigned int id, const IPAddr6& v) {
  const IPAddr6 value = v;  // it may lie in the node that is replaced
  *RepAccess::own(*this).nodeRef(Kind::addr6, id).addr6() = value;
}

void message::insert_string(unsigned int id, const std::string& v) {
  RepAccess::own(*this).putObject<Kind::string>(id, v);
}

void message::insert_raw(unsigned int id, const std::vector<unsigned char>& v) {
  RepAccess::own(*this).putObject<Kind::raw>(id, v);
}

void message::insert_message(unsigned int id, const flat_message& v) {
  RepAccess::own(*this).putObject<Kind::message>(id, v);
}

void message::insert_message(unsigned int id, const message& nested) {
  // As it is now: in becoming private its lists would turn round.
  if (this == &nested) return insert_message(id, nested.flattened());
  Rep& rep = RepAccess::own(*this);
  if (const Node* old = rep.fields.find(id).node; old != nullptr && old->hasObject())
    return rep.putObject<Kind::message>(id, nested.flattened());
  unsigned int bytes = nested.max_length();
  Node& node = rep.putRoom(Kind::message, id, bytes);
  nested.flatten(node.room(), &bytes);
  rep.setFilled(node, bytes, 0);
}

// --- Arrays -----------------------------------------------------------------------------------------------

std::vector<unsigned int> message::get_u32_array(unsigned int id) const {
  return arrayOf<Kind::u32Array>(*this, id);
}

std::vector<message::flat_message> message::get_message_array(unsigned int id) const {
  return arrayOf<Kind::messageArray>(*this, id);
}

const std::vector<unsigned int>* message::get_u32_array_ref(unsigned int id) const {
  return constRef<Kind::u32Array>(*this, id);
}

const std::vector<message::flat_message>* message::get_message_array_ref(unsigned int id) const {
  return constRef<Kind::messageArray>(*this, id);
}

void message::insert_u32_array(unsigned int id, const std::vector<unsigned int>& v) {
  putArray<Kind::u32Array>(*this, id, v);
}

void message::insert_message_array(unsigned int id, const std::vector<flat_message>& v) {
  putArray<Kind::messageArray>(*this, id, v);
}

// --- Removal and presence --------------------------------------------------------------------------------

void message::remove_bool(unsigned int id) {
  Rep& rep = RepAccess::own(*this);
  if (!isReservedKey(id)) rep.removeBool(id);
}

void message::remove_u32(unsigned int id) { RepAccess::own(*this).u32s.erase(id); }

void message::remove_field(unsigned int id) {
  Rep& rep = RepAccess::own(*this);
  rep.remove(rep.fields, id);
}

unsigned int message::size_bool(unsigned int id) const {
  return !isReservedKey(id) && RepAccess::read(*this).findBool(id) != nullptr ? 1 : 0;
}

unsigned int message::size_u32(unsigned int id) const { return get_u32_ref(id) != nullptr ? 1 : 0; }

unsigned int message::size_field(unsigned int id) const {
  return RepAccess::read(*this).fields.find(id).node != nullptr ? 1 : 0;
}

}  // namespace kl
