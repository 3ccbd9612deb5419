#include "tests/lib/message/model.h"

#include <algorithm>
#include <cstring>

namespace kl::test {
namespace {

constexpr unsigned int kTypeBits[] = {0x10000000, 0x18000000, 0x20000000, 0x28000000, 0x30000000, 0x80000000,
                                      0x88000000, 0x90000000, 0x98000000, 0xA0000000, 0xA8000000, 0xB0000000};

bool agrees(const ModelNode& node) { return (node.id & 0xF8000000) == typeBitsOf(node.value); }

void put(Bytes& out, unsigned long long v, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<unsigned char>(v >> 8 * i));
}

template <class Container>
void append(Bytes& out, const Container& bytes) {
  out.insert(out.end(), bytes.begin(), bytes.end());
}

// Bit 24 of an id as written is the flag, whatever the id has there.
unsigned int flagged(unsigned int id, bool flag) { return (id & ~0x01000000u) | (flag ? 0x01000000 : 0); }

void putLengthAndBytes(Bytes& out, unsigned int id, const Bytes& bytes) {
  put(out, flagged(id, bytes.size() <= 255), 4);
  put(out, bytes.size(), bytes.size() > 255 ? 2 : 1);
  append(out, bytes);
}

void putElement(Bytes& out, bool v) { put(out, v, 1); }
void putElement(Bytes& out, unsigned int v) { put(out, v, 4); }
void putElement(Bytes& out, unsigned long long v) { put(out, v, 8); }
void putElement(Bytes& out, const IPAddr6& v) { append(out, Bytes(v.bytes, v.bytes + 16)); }
template <class Long>
void putElement(Bytes& out, const Long& v) {
  put(out, v.size(), 2);
  append(out, v);
}

struct Writer {
  Bytes& out;
  unsigned int id;
  void operator()(unsigned long long v) const {
    put(out, id, 4);
    put(out, v, 8);
  }
  void operator()(const IPAddr6& v) const {
    put(out, id, 4);
    putElement(out, v);
  }
  void operator()(const std::string& v) const { putLengthAndBytes(out, id, Bytes(v.begin(), v.end())); }
  void operator()(const Flat& v) const { putLengthAndBytes(out, id, v); }
  void operator()(const Bytes& v) const { putLengthAndBytes(out, id, v); }
  template <class Element>
  void operator()(const std::vector<Element>& v) const {
    put(out, id, 4);
    put(out, v.size(), 2);
    for (const auto& element : v) putElement(out, element);
  }
};

unsigned int recordLength(const ModelNode& node) {
  Bytes out;
  std::visit(Writer{out, node.id}, node.value);
  const bool hasLength = node.value.index() >= 2 && node.value.index() <= 4;
  const bool isShort = hasLength && out[3] != static_cast<unsigned char>(node.id >> 24);
  return static_cast<unsigned int>(out.size()) + (isShort ? 1 : 0);
}

std::list<ModelNode>::iterator findIn(std::list<ModelNode>& list, unsigned int id) {
  return std::find_if(list.begin(), list.end(), [id](const ModelNode& node) { return node.id == id; });
}

bool includesNodes(const std::list<ModelNode>& mine, const std::list<ModelNode>& other) {
  return std::all_of(other.begin(), other.end(), [&](const ModelNode& node) {
    return std::any_of(mine.begin(), mine.end(), [&](const ModelNode& match) {
      return match.id == node.id && (!agrees(node) || match.value == node.value);
    });
  });
}

std::map<unsigned int, bool> allBools(const ModelRep& rep) {
  std::map<unsigned int, bool> all;
  if (rep.boolId != ModelRep::kNoBool) all[rep.boolId] = rep.boolValue;
  if (rep.bools)
    for (const ModelTable::Slot& slot : rep.bools->slots())
      if (slot.key < ModelTable::kDeleted) all[slot.key] = slot.value != 0;
  return all;
}

bool includesBools(const ModelRep& mine, const ModelRep& other) {
  const auto have = allBools(mine);
  const auto wanted = allBools(other);
  return std::includes(have.begin(), have.end(), wanted.begin(), wanted.end());
}

// The records of one flattened message, read by the table of the format.
class ModelReader {
 public:
  explicit ModelReader(const Bytes& bytes) : bytes_(bytes) {}
  bool atEnd() const { return at_ == bytes_.size(); }
  unsigned long long number(int bytes) {
    unsigned long long v = 0;
    for (int i = 0; i < bytes; ++i) v |= static_cast<unsigned long long>(bytes_[at_++]) << 8 * i;
    return v;
  }
  Bytes take(std::size_t n) {
    at_ += n;
    return Bytes(bytes_.begin() + static_cast<long>(at_ - n), bytes_.begin() + static_cast<long>(at_));
  }
  void element(bool& v) { v = number(1) != 0; }
  void element(unsigned int& v) { v = static_cast<unsigned int>(number(4)); }
  void element(unsigned long long& v) { v = number(8); }
  void element(IPAddr6& v) { std::memcpy(v.bytes, take(16).data(), 16); }
  template <class Long>
  void element(Long& v) {
    const Bytes bytes = take(static_cast<std::size_t>(number(2)));
    v.assign(bytes.begin(), bytes.end());
  }
  template <class Element>
  std::vector<Element> array() {
    std::vector<Element> all;
    for (auto n = number(2); n > 0; --n) {
      Element v{};
      element(v);
      all.push_back(v);
    }
    return all;
  }

 private:
  const Bytes& bytes_;
  std::size_t at_ = 0;
};

Value readValue(ModelReader& in, unsigned int type, bool flag) {
  switch (type) {
    case 0x10000000: return in.number(8);
    case 0x18000000: {
      IPAddr6 v;
      in.element(v);
      return v;
    }
    case 0x80000000: return in.array<bool>();
    case 0x88000000: return in.array<unsigned int>();
    case 0x90000000: return in.array<unsigned long long>();
    case 0x98000000: return in.array<IPAddr6>();
    case 0xA0000000: return in.array<std::string>();
    case 0xA8000000: return in.array<Flat>();
    case 0xB0000000: return in.array<Bytes>();
    default: break;
  }
  const Bytes bytes = in.take(static_cast<std::size_t>(in.number(flag ? 1 : 2)));
  if (type == 0x20000000) return std::string(bytes.begin(), bytes.end());
  if (type == 0x28000000) return Flat(bytes);
  return bytes;
}

}  // namespace

unsigned int typeBitsOf(const Value& value) { return kTypeBits[value.index()]; }
bool isArrayValue(const Value& value) { return value.index() >= 5; }

// --- ModelTable ------------------------------------------------------------------------------------------

const unsigned int* ModelTable::get(unsigned int key) const {
  for (std::size_t n = 0, i = key % slots_.size(); n < slots_.size(); ++n, i = (i + 1) % slots_.size()) {
    if (slots_[i].key == key) return &slots_[i].value;
    if (slots_[i].key == kEmpty) return nullptr;
  }
  return nullptr;
}

unsigned int& ModelTable::getRef(unsigned int key) {
  if (count_ + 1 > (slots_.size() >> 1) + (slots_.size() >> 4)) {
    const std::vector<Slot> old = std::exchange(slots_, std::vector<Slot>(2 * slots_.size()));
    count_ = 0;
    for (const Slot& slot : old)
      if (slot.key < kDeleted) getRef(slot.key) = slot.value;
  }
  Slot* target = nullptr;
  for (std::size_t n = 0, i = key % slots_.size(); n < slots_.size(); ++n, i = (i + 1) % slots_.size()) {
    if (slots_[i].key == key) return slots_[i].value;
    if (slots_[i].key == kDeleted && target == nullptr) target = &slots_[i];
    if (slots_[i].key != kEmpty) continue;
    if (target == nullptr) target = &slots_[i];
    break;
  }
  *target = {key, 0};
  ++count_;
  return target->value;
}

void ModelTable::erase(unsigned int key) {
  if (get(key) == nullptr) return;
  for (Slot& slot : slots_)
    if (slot.key == key) slot.key = kDeleted;
  --count_;
}

bool ModelTable::includes(const ModelTable& other) const {
  return std::all_of(other.slots_.begin(), other.slots_.end(), [&](const Slot& slot) {
    if (slot.key >= kDeleted) return true;
    const unsigned int* v = get(slot.key);
    return v != nullptr && *v == slot.value;
  });
}

void ModelTable::merge(const ModelTable& other) {
  for (const Slot& slot : other.slots_)
    if (slot.key < kDeleted) getRef(slot.key) = slot.value;
}

void ModelTable::removeIdMask(unsigned int id, unsigned int mask) {
  for (Slot& slot : slots_) {
    if (slot.key >= kDeleted || (slot.key & mask) != id) continue;
    slot.key = kDeleted;
    --count_;
  }
}

// --- ModelMessage ----------------------------------------------------------------------------------------

ModelMessage& ModelMessage::operator=(const ModelMessage& other) {
  if (rep_ != other.rep_) share(other);
  return *this;
}

void ModelMessage::share(const ModelMessage& other) {
  rep_ = other.rep_;
  if (rep_ && rep_->unshareable) clone();
}

const ModelRep& ModelMessage::read() const {
  static const ModelRep nil;
  return rep_ ? *rep_ : nil;
}

ModelRep& ModelMessage::own() {
  if (!rep_ || rep_.use_count() > 1) clone();
  return *rep_;
}

void ModelMessage::clone() {
  auto copy = std::make_shared<ModelRep>();
  const ModelRep& old = read();
  copy->boolId = old.boolId;
  copy->boolValue = old.boolValue;
  if (old.bools) copy->bools = std::make_unique<ModelTable>(*old.bools);
  copy->u32s = old.u32s;
  for (const ModelNode& node : old.fields)
    if (agrees(node)) copy->fields.push_front(node);
  for (const ModelNode& node : old.arrays)
    if (agrees(node)) copy->arrays.push_front(node);
  rep_ = copy;
}

void ModelMessage::insertBool(unsigned int id, bool v) {
  ModelRep& rep = own();
  if (rep.boolId == id || (rep.boolId == ModelRep::kNoBool && !rep.bools)) {
    rep.boolId = id;
    rep.boolValue = v;
    return;
  }
  if (rep.boolId != ModelRep::kNoBool) {
    rep.bools = std::make_unique<ModelTable>();
    rep.bools->getRef(rep.boolId) = rep.boolValue;
    rep.boolId = ModelRep::kNoBool;
  }
  rep.bools->getRef(id) = v;
}

void ModelMessage::insert(unsigned int id, const Value& value) {
  if (isArrayValue(value)) {
    ref(id, value) = value;
    return;
  }
  std::list<ModelNode>& list = own().listOf(value);
  if (const auto node = findIn(list, id); node != list.end()) node->value = value;
  else list.push_front({id, value});
}

unsigned int& ModelMessage::u32Ref(unsigned int id) {
  own().unshareable = true;
  return rep_->u32s.getRef(id);
}

Value& ModelMessage::ref(unsigned int id, const Value& zero) {
  std::list<ModelNode>& list = own().listOf(zero);
  rep_->unshareable = true;
  auto node = findIn(list, id);
  if (node == list.end()) node = list.insert(list.begin(), {id, zero});
  else if (node->value.index() != zero.index()) node->value = zero;
  return node->value;
}

void ModelMessage::removeBool(unsigned int id) {
  ModelRep& rep = own();
  if (rep.boolId == id) rep.boolId = ModelRep::kNoBool;
  else if (rep.boolId == ModelRep::kNoBool && rep.bools) rep.bools->erase(id);
}

void ModelMessage::removeField(unsigned int id) {
  own().fields.remove_if([id](const ModelNode& node) { return node.id == id; });
}

void ModelMessage::removeArray(unsigned int id) {
  own().arrays.remove_if([id](const ModelNode& node) { return node.id == id; });
}

const Value* ModelMessage::find(unsigned int id, bool array) const {
  for (const ModelNode& node : array ? read().arrays : read().fields)
    if (node.id == id) return &node.value;
  return nullptr;
}

bool ModelMessage::equals(const ModelMessage& other) const {
  const ModelRep& mine = read();
  const ModelRep& theirs = other.read();
  return rep_ == other.rep_ ||
         (mine.boolCount() == theirs.boolCount() && mine.u32s.count() == theirs.u32s.count() &&
          mine.fields.size() == theirs.fields.size() && mine.arrays.size() == theirs.arrays.size() &&
          includes(other));
}

bool ModelMessage::includes(const ModelMessage& other) const {
  const ModelRep& mine = read();
  const ModelRep& theirs = other.read();
  return rep_ == other.rep_ ||
         (includesBools(mine, theirs) && mine.u32s.includes(theirs.u32s) &&
          includesNodes(mine.fields, theirs.fields) && includesNodes(mine.arrays, theirs.arrays));
}

void ModelMessage::merge(const ModelMessage& other) {
  if (rep_ == other.rep_ || !other.rep_) return;
  if (!rep_) {
    share(other);
    return;
  }
  const bool wasUnshareable = rep_.use_count() == 1 && rep_->unshareable;
  ModelRep& mine = own();
  const ModelRep& theirs = *other.rep_;
  if (theirs.bools) {
    if (!mine.bools) mine.bools = std::make_unique<ModelTable>();
    if (mine.boolId != ModelRep::kNoBool) mine.bools->getRef(mine.boolId) = mine.boolValue;
    mine.boolId = ModelRep::kNoBool;
    mine.bools->merge(*theirs.bools);
  } else if (theirs.boolId != ModelRep::kNoBool) {
    insertBool(theirs.boolId, theirs.boolValue);
  }
  mine.u32s.merge(theirs.u32s);
  for (const auto* list : {&theirs.fields, &theirs.arrays})
    for (const ModelNode& node : *list)
      if (agrees(node)) insert(node.id, node.value);
  rep_->unshareable = wasUnshareable;  // merging does not set it
}

void ModelMessage::removeIdMask(unsigned int id, unsigned int mask) {
  if (!rep_) return;
  ModelRep& rep = own();
  const unsigned int p = id & mask;
  if (p < 0x08000000) {
    if (rep.boolId != ModelRep::kNoBool && (rep.boolId & mask) == p) rep.boolId = ModelRep::kNoBool;
    if (rep.bools) rep.bools->removeIdMask(p, mask);
  }
  if ((p & 0xF8000000) == (mask & 0x08000000)) rep.u32s.removeIdMask(p, mask);
  const auto matches = [&](const ModelNode& node) { return (node.id & mask) == p; };
  rep.fields.remove_if(matches);
  rep.arrays.remove_if(matches);
}

Bytes ModelMessage::flatten() const {
  const ModelRep& rep = read();
  Bytes out{0x4D, 0x32};
  if (rep.boolId != ModelRep::kNoBool) put(out, flagged(rep.boolId, rep.boolValue), 4);
  if (rep.bools)
    for (const ModelTable::Slot& slot : rep.bools->slots())
      if (slot.key < ModelTable::kDeleted) put(out, flagged(slot.key, slot.value != 0), 4);
  for (const ModelTable::Slot& slot : rep.u32s.slots()) {
    if (slot.key >= ModelTable::kDeleted) continue;
    put(out, flagged(slot.key, slot.value <= 255), 4);
    put(out, slot.value, slot.value > 255 ? 4 : 1);
  }
  for (const auto* list : {&rep.fields, &rep.arrays})
    for (const ModelNode& node : *list)
      if (agrees(node)) std::visit(Writer{out, node.id}, node.value);
  return out;
}

unsigned int ModelMessage::maxLength() const {
  const ModelRep& rep = read();
  unsigned int length = 2 + 4 * rep.boolCount() + 8 * rep.u32s.count();
  for (const auto* list : {&rep.fields, &rep.arrays})
    for (const ModelNode& node : *list)
      if (agrees(node)) length += recordLength(node);
  return length;
}

void ModelMessage::unflatten(const Bytes& bytes) {
  own();
  ModelReader in(bytes);
  in.number(2);
  while (!in.atEnd()) {
    const auto word = static_cast<unsigned int>(in.number(4));
    const bool flag = (word & 0x01000000) != 0;
    const unsigned int id = word & ~0x01000000u;
    const unsigned int type = id & 0xF8000000;
    if (type == 0) insertBool(id, flag);
    else if (type == 0x08000000) insertU32(id, static_cast<unsigned int>(in.number(flag ? 1 : 4)));
    else insert(id, readValue(in, type, flag));
    rep_->unshareable = true;
  }
}

const bool* ModelMessage::findBool(unsigned int id) const {
  static bool found;
  const auto all = allBools(read());
  const auto match = all.find(id);
  if (match == all.end()) return nullptr;
  found = match->second;
  return &found;
}

}  // namespace kl::test
