#include "tests/lib/message/model_life.h"

#include <gtest/gtest.h>

#include "tests/support/hex.h"

namespace kl::test {

unsigned int Life::idFor(unsigned int typeBits) {
  if (upTo(19) == 0) typeBits = 0x20000000;
  return typeBits | upTo(idRange_) | space();
}

std::string Life::text() {
  static constexpr unsigned int kLengths[] = {0, 1, 2, 3, 7, 8, 12, 15, 16, 17, 40, 200, 255, 256, 300, 1000};
  std::string text(kLengths[upTo(15)], 'x');
  for (char& c : text) c = static_cast<char>(upTo(255));
  return text;
}

Bytes Life::someBytes() {
  const std::string t = text();
  return Bytes(t.begin(), t.end());
}

Value Life::randomValue() {
  const auto many = [&](auto makeOne) {
    std::vector<decltype(makeOne())> all;
    for (unsigned int n = upTo(4); n > 0; --n) all.push_back(makeOne());
    return all;
  };
  const auto wide = [&] { return static_cast<unsigned long long>(word()) << 32 | word(); };
  const auto address = [&] {
    IPAddr6 v;
    for (unsigned char& byte : v.bytes) byte = static_cast<unsigned char>(upTo(255));
    return v;
  };
  switch (upTo(11)) {
    case 0: return wide();
    case 1: return address();
    case 2: return text();
    case 3: return Flat(someBytes());
    case 4: return someBytes();
    case 5: return many([&] { return upTo(1) == 1; });
    case 6: return many([&] { return word(); });
    case 7: return many(wide);
    case 8: return many(address);
    case 9: return many([&] { return text(); });
    case 10: return many([&] { return Flat(someBytes()); });
    default: return many([&] { return someBytes(); });
  }
}

namespace {

struct Insert {
  message& m;
  unsigned int id;
  void operator()(unsigned long long v) const { m.insert_u64(id, v); }
  void operator()(const IPAddr6& v) const { m.insert_addr6(id, v); }
  void operator()(const std::string& v) const { m.insert_string(id, v); }
  void operator()(const Flat& v) const { m.insert_message(id, v); }
  void operator()(const Bytes& v) const { m.insert_raw(id, v); }
  void operator()(const std::vector<bool>& v) const { m.insert_bool_array(id, v); }
  void operator()(const std::vector<unsigned int>& v) const { m.insert_u32_array(id, v); }
  void operator()(const std::vector<unsigned long long>& v) const { m.insert_u64_array(id, v); }
  void operator()(const std::vector<IPAddr6>& v) const { m.insert_addr6_array(id, v); }
  void operator()(const std::vector<std::string>& v) const { m.insert_string_array(id, v); }
  void operator()(const std::vector<Flat>& v) const { m.insert_message_array(id, v); }
  void operator()(const std::vector<Bytes>& v) const { m.insert_raw_array(id, v); }
};

// The pointer that the reference getter of this type gives, of a const or a changeable message.
template <class Message>
struct Reference {
  Message& m;
  unsigned int id;
  auto* operator()(unsigned long long) const { return m.get_u64_ref(id); }
  auto* operator()(const IPAddr6&) const { return m.get_addr6_ref(id); }
  auto* operator()(const std::string&) const { return m.get_string_ref(id); }
  auto* operator()(const Flat&) const { return m.get_message_ref(id); }
  auto* operator()(const Bytes&) const { return m.get_raw_ref(id); }
  auto* operator()(const std::vector<bool>&) const { return m.get_bool_array_ref(id); }
  auto* operator()(const std::vector<unsigned int>&) const { return m.get_u32_array_ref(id); }
  auto* operator()(const std::vector<unsigned long long>&) const { return m.get_u64_array_ref(id); }
  auto* operator()(const std::vector<IPAddr6>&) const { return m.get_addr6_array_ref(id); }
  auto* operator()(const std::vector<std::string>&) const { return m.get_string_array_ref(id); }
  auto* operator()(const std::vector<Flat>&) const { return m.get_message_array_ref(id); }
  auto* operator()(const std::vector<Bytes>&) const { return m.get_raw_array_ref(id); }
};

}  // namespace

void Life::insertValue() {
  const unsigned int i = upTo(kMessages - 1);
  const Value value = randomValue();
  const unsigned int id = idFor(typeBitsOf(value));
  std::visit(Insert{actual_[i], id}, value);
  expected_[i].insert(id, value);
}

void Life::changeThroughReference() {
  const unsigned int i = upTo(kMessages - 1);
  const Value value = randomValue();
  const unsigned int id = idFor(typeBitsOf(value));
  const Value zero = std::visit([](const auto& v) { return Value(std::decay_t<decltype(v)>{}); }, value);
  std::visit([&](const auto& v) { *Reference<message>{actual_[i], id}(v) = v; }, value);
  expected_[i].ref(id, zero) = value;
}

void Life::readThroughReference() {
  const unsigned int i = upTo(kMessages - 1);
  const message& m = actual_[i];
  for (const auto* list : {&expected_[i].read().fields, &expected_[i].read().arrays})
    for (const ModelNode& node : *list)
      if (upTo(3) == 0)
        std::visit(
            [&](const auto& v) {
              EXPECT_TRUE((*Reference<const message>{m, node.id}(v) == v));
            },
            node.value);
}

void Life::remove() {
  const unsigned int i = upTo(kMessages - 1);
  const unsigned int id = upTo(idRange_) | space() | typeBitsOf(randomValue());
  const unsigned int u32 = tableId(0x08000000);
  const unsigned int boolean = tableId(0);
  switch (upTo(3)) {
    case 0: return actual_[i].remove_field(id), expected_[i].removeField(id);
    case 1: return actual_[i].remove_array(id), expected_[i].removeArray(id);
    case 2: return actual_[i].remove_u32(u32), expected_[i].removeU32(u32);
    default: return actual_[i].remove_bool(boolean), expected_[i].removeBool(boolean);
  }
}

void Life::removeByMask() {
  static constexpr unsigned int kMasks[] = {0x00FF0000, 0xF8FF0000, 0xF8FFFFFF,
                                            0x00FFFFFF, 0xF8FF0003, 0x08FF0003};
  const unsigned int i = upTo(kMessages - 1);
  const unsigned int mask = kMasks[upTo(5)];
  const unsigned int id = (upTo(2) == 0   ? 0x08000000
                           : upTo(1) == 0 ? 0
                                          : 0x20000000) |
                          0x00FE0000 | upTo(idRange_);
  actual_[i].removeIdMask(id, mask);
  expected_[i].removeIdMask(id, mask);
}

void Life::readBytes() {
  const unsigned int i = upTo(kMessages - 1);
  const Bytes bytes = expected_[upTo(kMessages - 1)].flatten();
  // Table ids carry no other type here, so every record reads back under its own.
  EXPECT_TRUE(actual_[i].unflatten(bytes.data(), static_cast<unsigned int>(bytes.size()), message::normal));
  expected_[i].unflatten(bytes);
}

void Life::assign(unsigned int i, const message& m, const ModelMessage& model) {
  actual_[i] = m;
  expected_[i] = model;
}

void Life::handleStep() {
  const unsigned int i = upTo(kMessages - 1);
  const unsigned int k = upTo(kMessages - 1);
  switch (upTo(6)) {
    case 0: assign(i, actual_[k], expected_[k]); break;
    case 1:
      actual_[i].merge(actual_[k]);
      expected_[i].merge(expected_[k]);
      break;
    case 2:
      actual_[i].clone();
      expected_[i].clone();
      break;
    case 3: assign(i, message(actual_[k]), ModelMessage(expected_[k])); break;
    case 4: readBytes(); break;
    case 5:
      if (upTo(5) == 0) assign(i, message(), ModelMessage());
      break;
    default: removeByMask(); break;
  }
}

void Life::step() {
  const unsigned int i = upTo(kMessages - 1);
  const unsigned int v = upTo(1) == 0 ? upTo(300) : word();
  switch (upTo(9)) {
    case 0: {
      const unsigned int id = tableId(0);
      return actual_[i].insert_bool(id, (v & 1) != 0), expected_[i].insertBool(id, (v & 1) != 0);
    }
    case 1:
    case 2: {
      const unsigned int id = tableId(0x08000000);
      return actual_[i].insert_u32(id, v), expected_[i].insertU32(id, v);
    }
    case 3: {
      const unsigned int id = tableId(0x08000000);
      *actual_[i].get_u32_ref(id) = v;
      expected_[i].u32Ref(id) = v;
      return;
    }
    case 4:
    case 5: return insertValue();
    case 6: return upTo(2) == 0 ? changeThroughReference() : readThroughReference();
    case 7:
    case 8: return remove();
    default: return handleStep();
  }
}

template <class T>
void Life::checkSlots(const ModelTable& expected, const htable<T>& actual) {
  ASSERT_EQ(actual.capacity(), expected.slots().size());
  ASSERT_EQ(actual.count(), expected.count());
  unsigned int live = actual.next(htable<T>::kNoSlot);
  for (unsigned int i = 0; i < actual.capacity(); ++i) {
    const ModelTable::Slot& slot = expected.slots()[i];
    ASSERT_EQ(actual.isErased(i), slot.key == ModelTable::kDeleted) << "slot " << i;
    if (slot.key >= ModelTable::kDeleted) continue;
    ASSERT_EQ(live, i);
    ASSERT_EQ(actual.key(i), slot.key);
    ASSERT_EQ(static_cast<unsigned int>(actual.value(i)), slot.value);
    live = actual.next(live);
  }
  ASSERT_EQ(live, actual.capacity());
}

void Life::check() const {
  for (unsigned int i = 0; i < kMessages; ++i) {
    const message::Rep& rep = RepAccess::read(actual_[i]);
    const ModelRep& model = expected_[i].read();
    rep.check();
    ASSERT_NO_FATAL_FAILURE(checkSlots(model.u32s, rep.u32s));
    ASSERT_EQ(rep.bools != nullptr, model.bools != nullptr);
    if (model.bools) {
      ASSERT_NO_FATAL_FAILURE(checkSlots(*model.bools, *rep.bools));
    }
    ASSERT_EQ(rep.unshareable, model.unshareable);
    Bytes flat;
    actual_[i].flatten(flat);
    ASSERT_EQ(hex(flat), hex(expected_[i].flatten()));
    ASSERT_EQ(actual_[i].max_length(), expected_[i].maxLength());
    for (unsigned int k = 0; k < kMessages; ++k) {
      ASSERT_EQ(RepAccess::of(actual_[i]) == RepAccess::of(actual_[k]),
                expected_[i].rep() == expected_[k].rep());
      ASSERT_EQ(actual_[i] == actual_[k], expected_[i].equals(expected_[k]));
      ASSERT_EQ(actual_[i].includes(actual_[k]), expected_[i].includes(expected_[k]));
    }
  }
}

}  // namespace kl::test
