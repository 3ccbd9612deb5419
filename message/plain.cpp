// The container in its plainest form: hash tables with real slots, lists of nodes with standard values.

#include <atomic>
#include <cassert>
#include <cstdio>
#include <memory>
#include <variant>

#include "kl/message.h"

namespace kl {
namespace {

using Bytes = std::vector<unsigned char>;
using flat_message = message::flat_message;
constexpr unsigned int kEmpty = 0xFFFFFFFF;
constexpr unsigned int kDeleted = 0xFFFFFFFE;

unsigned int reversed(unsigned int v) { return __builtin_bswap32(v); }

template <class T>
struct Table {
  struct Slot {
    unsigned int key = kEmpty;
    T value{};
  };
  std::vector<Slot> slots = std::vector<Slot>(11);
  unsigned int count = 0;

  unsigned int capacity() const { return static_cast<unsigned int>(slots.size()); }

  const T* get(unsigned int k) const {
    for (unsigned int n = 0, i = k % capacity(); n < capacity(); ++n, i = (i + 1) % capacity()) {
      if (slots[i].key == k) return &slots[i].value;
      if (slots[i].key == kEmpty) return nullptr;
    }
    return nullptr;
  }
  T* get_ref(unsigned int k) {
    if (count + 1 > (capacity() >> 1) + (capacity() >> 4)) rehash();
    Slot* target = nullptr;
    for (unsigned int n = 0, i = k % capacity(); n < capacity(); ++n, i = (i + 1) % capacity()) {
      Slot& s = slots[i];
      if (s.key == k) return &s.value;
      if (s.key == kDeleted && target == nullptr) target = &s;
      if (s.key == kEmpty) {
        if (target == nullptr) target = &s;
        break;
      }
    }
    target->key = k;
    target->value = T{};
    ++count;
    return &target->value;
  }
  void rehash() {
    std::vector<Slot> old(slots.size() * 2);
    old.swap(slots);
    count = 0;
    for (const Slot& s : old)
      if (s.key < kDeleted) *get_ref(s.key) = s.value;
  }
  void erase(unsigned int k) {
    if (const T* v = get(k)) {
      for (Slot& s : slots)
        if (&s.value == v) s.key = kDeleted;
      --count;
    }
  }
  bool includes(const Table& other) const {
    for (const Slot& s : other.slots) {
      if (s.key >= kDeleted) continue;
      const T* v = get(s.key);
      if (v == nullptr || *v != s.value) return false;
    }
    return true;
  }
  void merge(const Table& other) {
    for (const Slot& s : other.slots)
      if (s.key < kDeleted) *get_ref(s.key) = s.value;
  }
  void removeIdMask(unsigned int value, unsigned int mask) {
    for (Slot& s : slots) {
      if (s.key >= kDeleted || (s.key & mask) != value) continue;
      s.key = kDeleted;
      --count;
    }
  }
};

using Value = std::variant<unsigned long long, IPAddr6, std::string, flat_message, Bytes, std::vector<bool>,
                           std::vector<unsigned int>, std::vector<unsigned long long>, std::vector<IPAddr6>,
                           std::vector<std::string>, std::vector<flat_message>, std::vector<Bytes>>;

struct Node {
  unsigned int id;
  Value value;
  std::unique_ptr<Node> next;
};

struct List {
  std::unique_ptr<Node> head;
  ~List() {
    while (head) head = std::move(head->next);
  }
  Node* find(unsigned int id) const {
    Node* n = head.get();
    while (n != nullptr && n->id != id) n = n->next.get();
    return n;
  }
  Node* add(unsigned int id, Value v) {
    head = std::unique_ptr<Node>(new Node{id, std::move(v), std::move(head)});
    return head.get();
  }
  template <class Matches>
  void removeIf(Matches matches, bool all) {
    for (std::unique_ptr<Node>* p = &head; *p;) {
      if (!matches((*p)->id)) {
        p = &(*p)->next;
        continue;
      }
      *p = std::move((*p)->next);
      if (!all) return;
    }
  }
  unsigned int count() const {
    unsigned int n = 0;
    for (Node* i = head.get(); i != nullptr; i = i->next.get()) ++n;
    return n;
  }
  void copyReversed(const List& other) {
    for (Node* i = other.head.get(); i != nullptr; i = i->next.get()) add(i->id, i->value);
  }
  bool includes(const List& other, unsigned int& counted) const {
    counted = 0;
    for (Node* i = other.head.get(); i != nullptr; i = i->next.get()) {
      ++counted;
      const Node* mine = find(i->id);
      if (mine == nullptr || mine->value != i->value) return false;
    }
    return true;
  }
  void merge(const List& other) {
    for (Node* i = other.head.get(); i != nullptr; i = i->next.get()) {
      if (Node* mine = find(i->id)) mine->value = i->value;
      else add(i->id, i->value);
    }
  }
  template <class T>
  T* getRef(unsigned int id) {
    Node* n = find(id);
    if (n == nullptr) n = add(id, T{});
    if (!std::holds_alternative<T>(n->value)) n->value = T{};
    return &std::get<T>(n->value);
  }
  template <class T>
  const T* findValue(unsigned int id) const {
    const Node* n = find(id);
    return n != nullptr && std::holds_alternative<T>(n->value) ? &std::get<T>(n->value) : nullptr;
  }
};

}  // namespace

struct message::Rep {
  std::unique_ptr<Table<bool>> bools;
  Table<unsigned int> u32s;
  List fields;
  List arrays;
  unsigned int bool_id = kEmpty;
  bool bool_value = false;
  std::unique_ptr<Bytes> kept;
  std::atomic<int> refs{1};
  bool unshareable = false;

  unsigned int boolCount() const { return bool_id != kEmpty ? 1 : bools ? bools->count : 0; }
  Table<bool>& boolTable() {
    if (!bools) bools = std::make_unique<Table<bool>>();
    if (bool_id != kEmpty) {
      *bools->get_ref(bool_id) = bool_value;
      bool_id = kEmpty;
    }
    return *bools;
  }
  bool* boolRef(unsigned int id) {
    if (bool_id == id) return &bool_value;
    if (bool_id != kEmpty || bools) return boolTable().get_ref(id);
    bool_id = id;
    bool_value = false;
    return &bool_value;
  }
};

namespace {
message::Rep* emptyRep() {
  static auto* rep = new message::Rep;
  return rep;
}
bool isKey(unsigned int id) { return id < kDeleted; }
}  // namespace

struct RepAccess {
  static const message::Rep& read(const message& m) { return m.rep_ != nullptr ? *m.rep_ : *emptyRep(); }
  static message::Rep& write(message& m) {
    if (m.rep_ == nullptr) m.rep_ = new message::Rep;
    else if (m.rep_->refs > 1) m.clone();
    return *m.rep_;
  }
};
static const message::Rep& R(const message& m) { return RepAccess::read(m); }
static message::Rep& W(message& m) { return RepAccess::write(m); }

void message::release(Rep* rep) {
  if (rep->refs.fetch_sub(1) == 1) delete rep;
}
message::message(const message& other) : rep_(other.rep_) {
  if (rep_ == nullptr) return;
  ++rep_->refs;
  if (rep_->unshareable) clone();
}
message::message(const flat_message& bytes)
    : message(bytes.data(), static_cast<unsigned int>(bytes.size())) {}
message::message(const Bytes& bytes) : message(bytes.data(), static_cast<unsigned int>(bytes.size())) {}
message::message(const unsigned char* data, unsigned int len) : rep_(new Rep) {
  (void)unflatten(data, len, normal);
}
message& message::operator=(const message& other) {
  if (other.rep_ != nullptr) ++other.rep_->refs;
  Rep* old = rep_;
  rep_ = other.rep_;
  if (old != nullptr) release(old);
  if (rep_ != nullptr && rep_->unshareable && rep_->refs >= 2) clone();
  return *this;
}
message& message::operator=(const flat_message& bytes) {
  message fresh(bytes);
  swap(fresh);
  return *this;
}
void message::clone() {
  Rep* fresh = new Rep;
  if (rep_ != nullptr) {
    fresh->bool_id = rep_->bool_id;
    fresh->bool_value = rep_->bool_value;
    if (rep_->bools) fresh->bools = std::make_unique<Table<bool>>(*rep_->bools);
    fresh->u32s = rep_->u32s;
    fresh->fields.copyReversed(rep_->fields);
    fresh->arrays.copyReversed(rep_->arrays);
    if (rep_->kept) fresh->kept = std::make_unique<Bytes>(*rep_->kept);
    release(rep_);
  }
  rep_ = fresh;
}

const bool* message::get_bool_ref(unsigned int id) const {
  static const bool absent = false;
  const Rep& r = R(*this);
  if (!isKey(id)) return &absent;
  if (r.bool_id == id) return &r.bool_value;
  const bool* v = r.bool_id == kEmpty && r.bools ? r.bools->get(id) : nullptr;
  return v != nullptr ? v : &absent;
}
unsigned int message::size_bool(unsigned int id) const {
  const Rep& r = R(*this);
  if (!isKey(id)) return 0;
  return r.bool_id == id || (r.bool_id == kEmpty && r.bools && r.bools->get(id) != nullptr) ? 1 : 0;
}
bool message::get_bool(unsigned int id, bool def) const {
  return size_bool(id) != 0 ? *get_bool_ref(id) : def;
}
bool* message::get_bool_ref(unsigned int id) {
  static bool scratch;
  if (!isKey(id)) return &(scratch = false);
  Rep& r = W(*this);
  r.unshareable = true;
  return r.boolRef(id);
}
void message::insert_bool(unsigned int id, bool v) {
  if (isKey(id)) *W(*this).boolRef(id) = v;
}
void message::remove_bool(unsigned int id) {
  if (!isKey(id)) return;
  Rep& r = W(*this);
  if (r.bool_id == id) r.bool_id = kEmpty;
  else if (r.bool_id == kEmpty && r.bools) r.bools->erase(id);
}
const unsigned int* message::get_u32_ref(unsigned int id) const {
  return isKey(id) ? R(*this).u32s.get(id) : nullptr;
}
unsigned int* message::get_u32_ref(unsigned int id) {
  static unsigned int scratch;
  if (!isKey(id)) return &(scratch = 0);
  Rep& r = W(*this);
  r.unshareable = true;
  return r.u32s.get_ref(id);
}
unsigned int message::get_u32(unsigned int id, unsigned int def) const {
  const unsigned int* v = get_u32_ref(id);
  return v != nullptr ? *v : def;
}
unsigned int message::get_be32(unsigned int id, unsigned int def) const {
  const unsigned int* v = get_u32_ref(id);
  return v != nullptr ? reversed(*v) : def;
}
void message::insert_u32(unsigned int id, unsigned int v) {
  if (isKey(id)) *W(*this).u32s.get_ref(id) = v;
}
void message::insert_be32(unsigned int id, unsigned int v) { insert_u32(id, reversed(v)); }
void message::remove_u32(unsigned int id) {
  if (isKey(id)) W(*this).u32s.erase(id);
}
unsigned int message::size_u32(unsigned int id) const { return get_u32_ref(id) != nullptr ? 1 : 0; }
void message::remove_field(unsigned int id) {
  W(*this).fields.removeIf([id](unsigned int i) { return i == id; }, false);
}
void message::remove_array(unsigned int id) {
  W(*this).arrays.removeIf([id](unsigned int i) { return i == id; }, false);
}
unsigned int message::size_field(unsigned int id) const {
  return R(*this).fields.find(id) != nullptr ? 1 : 0;
}
bool message::has_array(unsigned int id) const { return R(*this).arrays.find(id) != nullptr; }

#define KL_SCALAR(type, name, param)                                 \
  type message::get_##name(unsigned int id, const type& def) const { \
    const type* v = R(*this).fields.findValue<type>(id);             \
    return v != nullptr ? *v : def;                                  \
  }                                                                  \
  const type* message::get_##name##_ref(unsigned int id) const {     \
    const type* v = R(*this).fields.findValue<type>(id);             \
    assert(v != nullptr);                                            \
    return v;                                                        \
  }                                                                  \
  type* message::get_##name##_ref(unsigned int id) {                 \
    Rep& r = W(*this);                                               \
    r.unshareable = true;                                            \
    return r.fields.getRef<type>(id);                                \
  }                                                                  \
  void message::insert_##name(unsigned int id, param v) { *W(*this).fields.getRef<type>(id) = v; }
KL_SCALAR(IPAddr6, addr6, const IPAddr6&)
KL_SCALAR(std::string, string, const std::string&)
KL_SCALAR(Bytes, raw, const Bytes&)
KL_SCALAR(flat_message, message, const flat_message&)
unsigned long long message::get_u64(unsigned int id, unsigned long long def) const {
  const auto* v = R(*this).fields.findValue<unsigned long long>(id);
  return v != nullptr ? *v : def;
}
const unsigned long long* message::get_u64_ref(unsigned int id) const {
  return R(*this).fields.findValue<unsigned long long>(id);
}
unsigned long long* message::get_u64_ref(unsigned int id) {
  Rep& r = W(*this);
  r.unshareable = true;
  return r.fields.getRef<unsigned long long>(id);
}
void message::insert_u64(unsigned int id, unsigned long long v) {
  *W(*this).fields.getRef<unsigned long long>(id) = v;
}
void message::insert_message(unsigned int id, const message& nested) {
  flat_message f;
  nested.flatten(f);
  insert_message(id, f);
}
#define KL_ARRAY(element, name, sizeOf)                                                 \
  std::vector<element> message::get_##name##_array(unsigned int id) const {             \
    const auto* v = R(*this).arrays.findValue<std::vector<element>>(id);                \
    return v != nullptr ? *v : std::vector<element>();                                  \
  }                                                                                     \
  const std::vector<element>* message::get_##name##_array_ref(unsigned int id) const {  \
    const auto* v = R(*this).arrays.findValue<std::vector<element>>(id);                \
    assert(v != nullptr);                                                               \
    return v;                                                                           \
  }                                                                                     \
  std::vector<element>* message::get_##name##_array_ref(unsigned int id) {              \
    Rep& r = W(*this);                                                                  \
    r.unshareable = true;                                                               \
    return r.arrays.getRef<std::vector<element>>(id);                                   \
  }                                                                                     \
  void message::insert_##name##_array(unsigned int id, const std::vector<element>& v) { \
    *get_##name##_array_ref(id) = v;                                                    \
  }                                                                                     \
  unsigned int message::sizeOf(unsigned int id) const {                                 \
    const auto* v = R(*this).arrays.findValue<std::vector<element>>(id);                \
    return v != nullptr ? static_cast<unsigned int>(v->size()) : 0;                     \
  }
KL_ARRAY(bool, bool, size_bool_array)
KL_ARRAY(unsigned int, u32, size_unsigned_array)
KL_ARRAY(unsigned long long, u64, size_u64_array)
KL_ARRAY(IPAddr6, addr6, size_addr6_array)
KL_ARRAY(std::string, string, size_string_array)
KL_ARRAY(Bytes, raw, size_raw_array)
KL_ARRAY(flat_message, message, size_message_array)
std::vector<unsigned int> message::get_be32_array(unsigned int id) const {
  std::vector<unsigned int> v = get_u32_array(id);
  for (unsigned int& i : v) i = reversed(i);
  return v;
}
void message::insert_be32_array(unsigned int id, const std::vector<unsigned int>& v) {
  insert_u32_array(id, v);
  for (unsigned int& i : *get_u32_array_ref(id)) i = reversed(i);
}

// --- bytes ---------------------------------------------------------------------------------------
namespace {
struct Writer {
  Bytes out;
  void num(unsigned long long v, unsigned int n) {
    for (unsigned int i = 0; i < n; ++i) out.push_back(static_cast<unsigned char>(v >> (8 * i)));
  }
  template <class B>
  void bytes(const B& b) {
    out.insert(out.end(), b.begin(), b.end());
  }
  template <class B>
  void sized(unsigned int id, const B& b) {
    num(b.size() > 255 ? id : id | 0x01000000, 4);
    num(b.size(), b.size() > 255 ? 2 : 1);
    bytes(b);
  }
  void element(bool v) { num(v, 1); }
  void element(unsigned int v) { num(v, 4); }
  void element(unsigned long long v) { num(v, 8); }
  void element(const IPAddr6& v) { out.insert(out.end(), v.bytes, v.bytes + 16); }
  template <class B>
  void element(const B& b) {
    num(b.size(), 2);
    bytes(b);
  }
  void node(unsigned int id, unsigned long long v) { num(id, 4), num(v, 8); }
  void node(unsigned int id, const IPAddr6& v) { num(id, 4), element(v); }
  void node(unsigned int id, const std::string& v) { sized(id, v); }
  void node(unsigned int id, const flat_message& v) { sized(id, v); }
  void node(unsigned int id, const Bytes& v) { sized(id, v); }
  template <class T>
  void node(unsigned int id, const std::vector<T>& v) {
    num(id, 4), num(v.size(), 2);
    for (const auto& e : v) element(static_cast<const T&>(e));
  }
};
struct Reader {
  const unsigned char* p;
  const unsigned char* end;
  bool ok = true;
  unsigned long long num(unsigned int n) {
    if (static_cast<std::size_t>(end - p) < n) return ok = false, p = end, 0;
    unsigned long long v = 0;
    for (unsigned int i = 0; i < n; ++i) v |= static_cast<unsigned long long>(*p++) << (8 * i);
    return v;
  }
  template <class B>
  B bytes(unsigned long long n) {
    B b;
    if (static_cast<std::size_t>(end - p) < n) return ok = false, b;
    b.assign(p, p + n);
    p += n;
    return b;
  }
  IPAddr6 addr() {
    IPAddr6 a;
    if (end - p < 16) return ok = false, a;
    std::memcpy(a.bytes, p, 16);
    p += 16;
    return a;
  }
};
}  // namespace

namespace {
unsigned int boundOf(const std::string& v) { return static_cast<unsigned int>(v.size()) + 6; }
unsigned int boundOf(const Bytes& v) { return static_cast<unsigned int>(v.size()) + 6; }
unsigned int boundOf(unsigned long long) { return 12; }
unsigned int boundOf(const IPAddr6&) { return 20; }
template <class T>
unsigned int boundOf(const std::vector<T>& v) {
  Writer w;
  w.node(0, v);
  return static_cast<unsigned int>(w.out.size());
}
void writeTo(Writer& w, const message::Rep& r) {
  w.num(0x324D, 2);
  if (r.bool_id != kEmpty) w.num(r.bool_id | (r.bool_value ? 0x01000000u : 0u), 4);
  else if (r.bools)
    for (const auto& s : r.bools->slots)
      if (s.key < kDeleted) w.num(s.key | (s.value ? 0x01000000u : 0u), 4);
  for (const auto& s : r.u32s.slots) {
    if (s.key >= kDeleted) continue;
    w.num(s.value > 255 ? s.key : s.key | 0x01000000, 4);
    w.num(s.value, s.value > 255 ? 4 : 1);
  }
  for (const List* l : {&r.fields, &r.arrays})
    for (Node* i = l->head.get(); i != nullptr; i = i->next.get())
      std::visit([&](const auto& v) { w.node(i->id, v); }, i->value);
}
}  // namespace

unsigned int message::max_length() const {
  const Rep& r = R(*this);
  unsigned int n = 2 + 4 * r.boolCount() + 8 * r.u32s.count;
  for (const List* l : {&r.fields, &r.arrays})
    for (Node* i = l->head.get(); i != nullptr; i = i->next.get())
      n += std::visit([](const auto& v) { return boundOf(v); }, i->value);
  return n;
}
void message::flatten(unsigned char* buf, unsigned int* len) const {
  Writer w;
  writeTo(w, R(*this));
  std::memcpy(buf, w.out.data(), w.out.size());
  if (w.out.size() > *len) std::puts("WARNING: too small buffer for flatten");
  *len = static_cast<unsigned int>(w.out.size());
}
void message::flatten(Bytes& out) const {
  Writer w;
  writeTo(w, R(*this));
  out = w.out;
}
const Bytes* message::kept() const { return R(*this).kept.get(); }

namespace {
template <class T>
bool readArray(Reader& in, std::vector<T>& out, unsigned int elementBytes) {
  const auto n = in.num(2);
  out.clear();
  if (!in.ok || static_cast<unsigned long long>(in.end - in.p) < n * elementBytes) return false;
  for (unsigned long long i = 0; in.ok && i < n; ++i) {
    if constexpr (std::is_same_v<T, IPAddr6>) out.push_back(in.addr());
    else if constexpr (std::is_same_v<T, bool>) out.push_back(in.num(1) != 0);
    else if constexpr (std::is_integral_v<T>) out.push_back(static_cast<T>(in.num(elementBytes)));
    else {
      const auto len = in.num(2);
      T e = in.bytes<T>(len);
      if (in.ok) out.push_back(e);
    }
  }
  return in.ok;
}
bool readField(message& m, Reader& in, unsigned int id, bool shortForm) {
  const auto length = [&] { return in.num(shortForm ? 1 : 2); };
  switch (id & 0xF8000000) {
    case 0x00000000: *m.get_bool_ref(id) = shortForm; return true;
    case 0x08000000: {
      const auto v = in.num(shortForm ? 1 : 4);
      if (in.ok) *m.get_u32_ref(id) = static_cast<unsigned int>(v);
      return in.ok;
    }
    case 0x10000000: {
      const auto v = in.num(8);
      if (in.ok) *m.get_u64_ref(id) = v;
      return in.ok;
    }
    case 0x18000000: {
      const IPAddr6 v = in.addr();
      if (in.ok) *m.get_addr6_ref(id) = v;
      return in.ok;
    }
    case 0x20000000: {
      const auto v = in.bytes<std::string>(length());
      if (in.ok) *m.get_string_ref(id) = v;
      return in.ok;
    }
    case 0x28000000: {
      const auto v = in.bytes<flat_message>(length());
      if (in.ok) *m.get_message_ref(id) = v;
      return in.ok;
    }
    case 0x30000000: {
      const auto v = in.bytes<Bytes>(length());
      if (in.ok) *m.get_raw_ref(id) = v;
      return in.ok;
    }
    case 0x80000000: return readArray(in, *m.get_bool_array_ref(id), 1);
    case 0x88000000: return readArray(in, *m.get_u32_array_ref(id), 4);
    case 0x90000000: return readArray(in, *m.get_u64_array_ref(id), 8);
    case 0x98000000: return readArray(in, *m.get_addr6_array_ref(id), 16);
    case 0xA0000000: return readArray(in, *m.get_string_array_ref(id), 0);
    case 0xA8000000: return readArray(in, *m.get_message_array_ref(id), 0);
    case 0xB0000000: return readArray(in, *m.get_raw_array_ref(id), 0);
    default: return false;
  }
}
}  // namespace

bool message::unflatten(const unsigned char* data, unsigned int len, flatten_type type) {
  W(*this);
  if (data == nullptr) return true;
  Reader in{data, data + len};
  if (type != bare && in.num(2) != 0x324D) return false;
  while (in.end - in.p >= 4) {
    const auto word = static_cast<unsigned int>(in.num(4));
    if (!readField(*this, in, word & ~0x01000000u, (word & 0x01000000) != 0)) return false;
  }
  return in.p == in.end;
}

// --- comparison and combination --------------------------------------------------------------------

bool message::includes_bools(const Rep* other) const {
  const Rep& r = R(*this);
  if (other->bool_id != kEmpty)
    return size_bool(other->bool_id) != 0 && get_bool(other->bool_id, false) == other->bool_value;
  if (!other->bools) return true;
  for (const auto& s : other->bools->slots)
    if (s.key < kDeleted && (size_bool(s.key) == 0 || get_bool(s.key, false) != s.value)) return false;
  return r.boolCount() >= other->bools->count;
}
bool message::includes_fields(const Rep* other, unsigned int& count) const {
  return R(*this).fields.includes(other->fields, count);
}
bool message::includes_arrays(const Rep* other, unsigned int& count) const {
  return R(*this).arrays.includes(other->arrays, count);
}
bool message::includes(const message& other) const {
  unsigned int n = 0;
  return rep_ == other.rep_ || (includes_bools(&R(other)) && R(*this).u32s.includes(R(other).u32s) &&
                                includes_fields(&R(other), n) && includes_arrays(&R(other), n));
}
bool message::operator==(const message& other) const {
  const Rep& a = R(*this);
  const Rep& b = R(other);
  return rep_ == other.rep_ ||
         (a.boolCount() == b.boolCount() && a.u32s.count == b.u32s.count &&
          a.fields.count() == b.fields.count() && a.arrays.count() == b.arrays.count() && includes(other));
}
void message::merge(const message& other) {
  if (rep_ == other.rep_ || other.rep_ == nullptr) return;
  if (rep_ == nullptr) {
    *this = other;
    return;
  }
  const message held(other);
  Rep& r = W(*this);
  const Rep& o = R(other);
  if (o.bools) r.boolTable().merge(*o.bools);
  else if (o.bool_id != kEmpty) *r.boolRef(o.bool_id) = o.bool_value;
  r.u32s.merge(o.u32s);
  r.fields.merge(o.fields);
  r.arrays.merge(o.arrays);
}
void message::removeIdMask(unsigned int id, unsigned int mask) {
  if (rep_ == nullptr) return;
  const unsigned int p = id & mask;
  Rep& r = W(*this);
  if (p < 0x08000000) {
    if (r.bool_id != kEmpty && (r.bool_id & mask) == p) r.bool_id = kEmpty;
    if (r.bools) r.bools->removeIdMask(p, mask);
  }
  if ((p & 0xF8000000) == (mask & 0x08000000)) r.u32s.removeIdMask(p, mask);
  const auto matches = [p, mask](unsigned int i) { return (i & mask) == p; };
  r.fields.removeIf(matches, true);
  r.arrays.removeIf(matches, true);
}

// --- text ------------------------------------------------------------------------------------------

Dumper::Dumper(char* buffer, unsigned int capacity)
    : std::ostream(nullptr), buffer_(buffer), capacity_(capacity) {}
Dumper::~Dumper() = default;
void Dumper::write(const char* p, unsigned int n) {
  const unsigned int room = capacity_ - used_;
  if (n > room) n = room;
  std::memcpy(buffer_ + used_, p, n);
  used_ += n;
}
Dumper& Dumper::operator<<(const char* s) {
  write(s, static_cast<unsigned int>(std::strlen(s)));
  return *this;
}
static void writeHex(Dumper& out, unsigned long long v, unsigned int digits) {
  for (unsigned int i = digits; i-- > 0;) out.write(&"0123456789abcdef"[v >> (4 * i) & 15], 1);
}
Dumper& Dumper::operator<<(unsigned int v) {
  *this << "0x";
  writeHex(*this, v, 8);
  return *this;
}
Dumper& Dumper::operator<<(unsigned long long v) {
  *this << "0x";
  writeHex(*this, v, 16);
  return *this;
}
Dumper& Dumper::operator<<(unsigned char v) {
  writeHex(*this, v, 2);
  return *this;
}
template <>
std::ostream& doEndl<std::ostream>(std::ostream& out) {
  return out.put('\n').flush();
}
template <>
Dumper& doEndl<Dumper>(Dumper& out) {
  out.write("\n", 1);
  return out;
}
template <class S>
requires(std::is_same_v<S, std::ostream> ||
         std::is_same_v<S, Dumper>) void message::dump2(S&, const char*, unsigned int) const {}
template void message::dump2<std::ostream>(std::ostream&, const char*, unsigned int) const;
template void message::dump2<Dumper>(Dumper&, const char*, unsigned int) const;
std::ostream& operator<<(std::ostream& out, const message& m) {
  m.dump2<std::ostream>(out, "", 0);
  return out;
}

}  // namespace kl
