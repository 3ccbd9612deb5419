// Getters, inserts and removals of arrays.  Those of u32 and of nested messages, which most messages have, stand in
// fields.cpp.

#include "message/access.h"

namespace kl {
namespace {

using container::Kind;
using container::Node;

void reverseBytes(std::vector<unsigned int>& numbers) {
  for (unsigned int& number : numbers) number = byteReversed(number);
}

unsigned int countOf(const message& m, Kind kind, unsigned int id) {
  const Node* node = RepAccess::read(m).find(kind, id);
  return node != nullptr ? static_cast<unsigned int>(valueCount(*node)) : 0;
}

}  // namespace

// --- Getters by value ------------------------------------------------------------------------------------

std::vector<bool> message::get_bool_array(unsigned int id) const {
  return arrayOf<Kind::boolArray>(*this, id);
}

std::vector<unsigned long long> message::get_u64_array(unsigned int id) const {
  return arrayOf<Kind::u64Array>(*this, id);
}

std::vector<IPAddr6> message::get_addr6_array(unsigned int id) const {
  return arrayOf<Kind::addr6Array>(*this, id);
}

std::vector<std::string> message::get_string_array(unsigned int id) const {
  return arrayOf<Kind::stringArray>(*this, id);
}

std::vector<std::vector<unsigned char>> message::get_raw_array(unsigned int id) const {
  return arrayOf<Kind::rawArray>(*this, id);
}

std::vector<unsigned int> message::get_be32_array(unsigned int id) const {
  std::vector<unsigned int> numbers = get_u32_array(id);
  reverseBytes(numbers);
  return numbers;
}

// --- Reference getters -----------------------------------------------------------------------------------

const std::vector<bool>* message::get_bool_array_ref(unsigned int id) const {
  return constRef<Kind::boolArray>(*this, id);
}

const std::vector<unsigned long long>* message::get_u64_array_ref(unsigned int id) const {
  return constRef<Kind::u64Array>(*this, id);
}

const std::vector<IPAddr6>* message::get_addr6_array_ref(unsigned int id) const {
  return constRef<Kind::addr6Array>(*this, id);
}

const std::vector<std::string>* message::get_string_array_ref(unsigned int id) const {
  return constRef<Kind::stringArray>(*this, id);
}

const std::vector<std::vector<unsigned char>>* message::get_raw_array_ref(unsigned int id) const {
  return constRef<Kind::rawArray>(*this, id);
}

std::vector<bool>* message::get_bool_array_ref(unsigned int id) {
  return ownForGood(*this).objectRef<Kind::boolArray>(id);
}

std::vector<unsigned int>* message::get_u32_array_ref(unsigned int id) {
  return ownForGood(*this).objectRef<Kind::u32Array>(id);
}

std::vector<unsigned long long>* message::get_u64_array_ref(unsigned int id) {
  return ownForGood(*this).objectRef<Kind::u64Array>(id);
}

std::vector<IPAddr6>* message::get_addr6_array_ref(unsigned int id) {
  return ownForGood(*this).objectRef<Kind::addr6Array>(id);
}

std::vector<std::string>* message::get_string_array_ref(unsigned int id) {
  return ownForGood(*this).objectRef<Kind::stringArray>(id);
}

std::vector<std::vector<unsigned char>>* message::get_raw_array_ref(unsigned int id) {
  return ownForGood(*this).objectRef<Kind::rawArray>(id);
}

std::vector<message::flat_message>* message::get_message_array_ref(unsigned int id) {
  return ownForGood(*this).objectRef<Kind::messageArray>(id);
}

// --- Inserts ---------------------------------------------------------------------------------------------

void message::insert_bool_array(unsigned int id, const std::vector<bool>& v) {
  putArray<Kind::boolArray>(*this, id, v);
}

void message::insert_u64_array(unsigned int id, const std::vector<unsigned long long>& v) {
  putArray<Kind::u64Array>(*this, id, v);
}

void message::insert_addr6_array(unsigned int id, const std::vector<IPAddr6>& v) {
  putArray<Kind::addr6Array>(*this, id, v);
}

void message::insert_string_array(unsigned int id, const std::vector<std::string>& v) {
  putArray<Kind::stringArray>(*this, id, v);
}

void message::insert_raw_array(unsigned int id, const std::vector<std::vector<unsigned char>>& v) {
  putArray<Kind::rawArray>(*this, id, v);
}

void message::insert_be32(unsigned int id, unsigned int v) { insert_u32(id, byteReversed(v)); }

void message::insert_be32_array(unsigned int id, const std::vector<unsigned int>& v) {
  std::vector<unsigned int> reversed = v;
  reverseBytes(reversed);
  insert_u32_array(id, reversed);
}

// --- Removal and presence --------------------------------------------------------------------------------

void message::remove_array(unsigned int id) {
  Rep& rep = RepAccess::own(*this);
  rep.remove(rep.arrays, id);
}

bool message::has_array(unsigned int id) const {
  return RepAccess::read(*this).arrays.find(id).node != nullptr;
}

unsigned int message::size_bool_array(unsigned int id) const { return countOf(*this, Kind::boolArray, id); }

unsigned int message::size_unsigned_array(unsigned int id) const {
  return countOf(*this, Kind::u32Array, id);
}

unsigned int message::size_u64_array(unsigned int id) const { return countOf(*this, Kind::u64Array, id); }

unsigned int message::size_addr6_array(unsigned int id) const { return countOf(*this, Kind::addr6Array, id); }

unsigned int message::size_string_array(unsigned int id) const {
  return countOf(*this, Kind::stringArray, id);
}

unsigned int message::size_raw_array(unsigned int id) const { return countOf(*this, Kind::rawArray, id); }

unsigned int message::size_message_array(unsigned int id) const {
  return countOf(*this, Kind::messageArray, id);
}

}  // namespace kl
