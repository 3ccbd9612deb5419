// The text dump.
//
// One class makes the lines for both kinds of output; they differ in how numbers are written and lines end.
// Nested messages are rebuilt from their bytes, which stay where they are in the outer message, and walked
// by a chain of levels instead of a recursion: the depth is that of the data, which may come from a peer.
//
// D1  on a Dumper nothing is taken from the heap: representations and levels lie in one fixed arena, which
//     the first dump takes and any other one that interrupts it does without
// D2  what has no room in the arena is named in a line; everything before and after it is there
// D3  a level's arena is free again when the level ends

#include <atomic>
#include <new>
#include <optional>

#include "kl/conventions.h"
#include "message/dump_names.h"
#include "message/wire.h"

namespace kl {
namespace {

using container::Arena;
using container::Elements;
using container::Kind;
using container::kNameBytes;
using container::Node;
using container::Outcome;
using container::Reading;
using container::Span;

constexpr std::size_t kArenaBytes = 64 * 1024;
alignas(16) unsigned char arenaBytes[kArenaBytes];
constinit std::atomic<bool> arenaIsTaken{false};

// Holds the arena as long as it lives, or none if another dump has it.
class ArenaLease {
 public:
  ArenaLease() : hasIt_(!arenaIsTaken.exchange(true, std::memory_order_acquire)) {}
  ~ArenaLease() {
    if (hasIt_) arenaIsTaken.store(false, std::memory_order_release);
  }
  ArenaLease(const ArenaLease&) = delete;
  ArenaLease& operator=(const ArenaLease&) = delete;

  std::size_t bytes() const { return hasIt_ ? kArenaBytes : 0; }

 private:
  bool hasIt_;
};

// One message in the chain from the outermost to the one whose lines are being written.
struct Level {
  Level* outer;
  const message::Rep* rep;
  unsigned int indent;
  bool isCut = false;                  // fields are missing for want of room
  const Node* field = nullptr;         // the next of the field list
  const Node* array = nullptr;         // the next of the array list
  std::optional<Elements> elements{};  // of the message array that is being written
  unsigned char* arenaMark = nullptr;
};

// Where the lines go, and where the levels of nested messages and their representations lie.
class Output {
 public:
  virtual void write(const char* p, std::size_t n) = 0;
  virtual void text(const char* s) = 0;
  virtual void number(unsigned int v) = 0;
  virtual void number(unsigned long long v) = 0;
  // The next write may be a number.
  virtual void decimal() {}
  virtual void endLine() = 0;
  // Null where there is no room.
  virtual Level* nested(Level* outer, Span bytes) = 0;
  virtual void end(Level* level) = 0;

 protected:
  ~Output() = default;
};

template <class S>
class OutputTo;

// A stream; the levels lie on the heap.
template <>
class OutputTo<std::ostream> final : public Output {
 public:
  explicit OutputTo(std::ostream& out) : out_(out) {}

  void write(const char* p, std::size_t n) override { out_.write(p, static_cast<std::streamsize>(n)); }
  void text(const char* s) override { out_ << s; }
  void number(unsigned int v) override {
    decimal();
    out_ << v;
  }
  void number(unsigned long long v) override {
    decimal();
    out_ << v;
  }
  void decimal() override { out_.setf(std::ios_base::dec, std::ios_base::basefield); }
  void endLine() override { doEndl(out_); }
  Level* nested(Level* outer, Span bytes) override {
    message::Rep* rep = message::Rep::make();
    (void)readFormat(*rep, bytes.data, bytes.size, message::normal, Reading::borrowing);
    return new Level{outer, rep, outer->indent + 1};
  }
  void end(Level* level) override {
    message::Rep::destroy(const_cast<message::Rep*>(level->rep));
    delete level;
  }

 private:
  std::ostream& out_;
};

// A Dumper; the levels lie in the arena (D1).  Async-signal-safe.
template <>
class OutputTo<Dumper> final : public Output {
 public:
  explicit OutputTo(Dumper& out) : out_(out) {}

  void write(const char* p, std::size_t n) override { out_.write(p, static_cast<unsigned int>(n)); }
  void text(const char* s) override { out_ << s; }
  void number(unsigned int v) override { out_ << v; }
  void number(unsigned long long v) override { out_ << v; }
  void endLine() override { doEndl(out_); }
  Level* nested(Level* outer, Span bytes) override {
    constexpr std::size_t levelBytes = container::roundedUp(sizeof(Level));
    unsigned char* const mark = arena_.mark();
    if (arena_.room() < levelBytes + message::Rep::arenaBytes()) return nullptr;
    auto* level = new (arena_.take(levelBytes)) Level{outer, nullptr, outer->indent + 1};
    message::Rep* rep = message::Rep::make(arena_);
    if (!container::hasRoomForField(*rep, 0)) return arena_.rewind(mark), nullptr;
    level->isCut =
        readFormat(*rep, bytes.data, bytes.size, message::normal, Reading::borrowing) == Outcome::noRoom;
    level->rep = rep;
    level->arenaMark = mark;
    return level;
  }
  void end(Level* level) override { arena_.rewind(level->arenaMark); }  // D3

 private:
  Dumper& out_;
  ArenaLease lease_;
  Arena arena_{arenaBytes, lease_.bytes()};
};

// Async-signal-safe where the output is a Dumper.
class Dump {
 public:
  Dump(Output& out, const char* prefix) : out_(out), prefix_(prefix) {}

  void write(const message::Rep& rep, unsigned int indent);

 private:
  void begin(Level& level);
  bool next(Level& level, Span& nested);
  bool nextField(Level& level, Span& nested);
  bool nextArray(Level& level, Span& nested);
  Level* enter(Level* level, Span nested);
  Level* leave(Level* level);

  void writeBools(const Level& level);
  void writeU32s(const Level& level);
  void writeField(const Level& level, const Node& node);
  void writeArray(const Level& level, const Node& node);
  void writeElement(const Node& node, const Elements& element, bool isFirst);

  void head(const Level& level) { head(level.indent); }
  void head(unsigned int indent);
  void title(const Level& level, const char* word, unsigned int id, const char* after);
  void text(const char* s) { out_.text(s); }
  void characters(Span bytes) { out_.write(reinterpret_cast<const char*>(bytes.data), bytes.size); }
  void size(std::size_t bytes) {
    text("#");
    out_.number(static_cast<unsigned int>(bytes));
  }

  Output& out_;
  const char* prefix_;
};

void Dump::write(const message::Rep& rep, unsigned int indent) {
  Level outermost{nullptr, &rep, indent};
  begin(outermost);
  for (Level* level = &outermost; level != nullptr;) {
    Span nested;
    level = next(*level, nested) ? enter(level, nested) : leave(level);
  }
}

void Dump::begin(Level& level) {
  head(level);
  text("--- kl::message --------");
  out_.endLine();
  writeBools(level);
  writeU32s(level);
  level.field = level.rep->fields.head();
  level.array = level.rep->arrays.head();
}

// Writes lines of the level up to the next nested message.  False at the level's end.
bool Dump::next(Level& level, Span& nested) { return nextField(level, nested) || nextArray(level, nested); }

bool Dump::nextField(Level& level, Span& nested) {
  while (level.field != nullptr) {
    const Node& node = *level.field;
    level.field = node.next;
    if (!node.agrees()) continue;
    if (node.kind != Kind::message) {
      writeField(level, node);
      continue;
    }
    title(level, "message", node.id, "]...");
    out_.endLine();
    nested = bytesOf(node);
    return true;
  }
  return false;
}

bool Dump::nextArray(Level& level, Span& nested) {
  while (level.array != nullptr) {
    const Node& node = *level.array;
    if (node.agrees() && node.kind == Kind::messageArray) {
      if (!level.elements.has_value()) {
        title(level, "message[]", node.id, "]..");
        out_.endLine();
        level.elements.emplace(node);
      }
      if (!level.elements->atEnd()) {
        nested = level.elements->bytes();
        level.elements->next();
        return true;
      }
      level.elements.reset();
      out_.endLine();
    } else if (node.agrees()) {
      writeArray(level, node);
    }
    level.array = node.next;
  }
  return false;
}

// D2
Level* Dump::enter(Level* level, Span nested) {
  Level* inner = out_.nested(level, nested);
  if (inner != nullptr) {
    begin(*inner);
    return inner;
  }
  head(level->indent + 1);
  text("--- no room for a message of ");
  size(nested.size);
  out_.endLine();
  return level;
}

Level* Dump::leave(Level* level) {
  if (level->isCut) {
    head(*level);
    text("--- no room for more fields");
    out_.endLine();
  }
  head(*level);
  text("------------------------");
  out_.endLine();
  Level* const outer = level->outer;
  if (outer != nullptr) out_.end(level);
  return outer;
}

void Dump::writeBools(const Level& level) {
  level.rep->forEachBool([&](unsigned int id, bool v) {
    title(level, "bool", id, "]=");
    text(v ? "true" : "false");
    out_.endLine();
  });
}

void Dump::writeU32s(const Level& level) {
  char room[kNameBytes];
  const htable<unsigned int>& u32s = level.rep->u32s;
  for (unsigned int i = u32s.next(u32s.kNoSlot); i < u32s.capacity(); i = u32s.next(i)) {
    title(level, "u32", u32s.key(i), "]=");
    out_.decimal();
    text(container::valueName(u32s.key(i), u32s.value(i), room));
    out_.endLine();
  }
}

// Needs: no message.
void Dump::writeField(const Level& level, const Node& node) {
  char room[kNameBytes];
  switch (node.kind) {
    case Kind::string:
      title(level, "string", node.id, "]=");
      characters(bytesOf(node));
      break;
    case Kind::raw:
      title(level, "raw", node.id, "]=");
      size(bytesOf(node).size);
      break;
    case Kind::addr6:
      title(level, "addr6", node.id, "]=");
      text(container::addressText(node.addr6()->bytes, room));
      break;
    default:
      title(level, "u64", node.id, "]=");
      out_.number(*node.u64());
      break;
  }
  out_.endLine();
}

const char* arrayWord(Kind kind) {
  switch (kind) {
    case Kind::addr6Array: return "addr6[]";
    case Kind::stringArray: return "string[]";
    case Kind::rawArray: return "raw[]";
    case Kind::u32Array: return "u32[]";
    case Kind::u64Array: return "u64[]";
    default: return "bool[]";
  }
}

// Needs: no message array.
void Dump::writeArray(const Level& level, const Node& node) {
  title(level, arrayWord(node.kind), node.id, "]=");
  bool isFirst = true;
  for (Elements element(node); !element.atEnd(); element.next()) {
    writeElement(node, element, isFirst);
    text(", ");
    isFirst = false;
  }
  out_.endLine();
}

bool isPath(unsigned int id) {
  constexpr unsigned int kWithoutType = 0x00FFFFFF;
  return (id & kWithoutType) == (SYS_TO & kWithoutType) || (id & kWithoutType) == (SYS_FROM & kWithoutType);
}

void Dump::writeElement(const Node& node, const Elements& element, bool isFirst) {
  char room[kNameBytes];
  switch (node.kind) {
    case Kind::addr6Array: text(container::addressText(element.bytes().data, room)); break;
    case Kind::stringArray: characters(element.bytes()); break;
    case Kind::rawArray: size(element.bytes().size); break;
    case Kind::boolArray: text(element.number() != 0 ? "true" : "false"); break;
    case Kind::u64Array: out_.number(element.number()); break;
    default: {
      const auto v = static_cast<unsigned int>(element.number());
      out_.number(v);
      const char* service = isFirst && isPath(node.id) ? findServiceName(v) : nullptr;
      if (service == nullptr) break;
      text("(");
      text(service);
      text(")");
      break;
    }
  }
}

void Dump::head(unsigned int indent) {
  constexpr unsigned int kAtOnce = 16;
  text(prefix_);
  for (; indent >= kAtOnce; indent -= kAtOnce)
    out_.write("                                                                ", 4 * kAtOnce);
  for (; indent > 0; --indent) out_.write("    ", 4);
}

void Dump::title(const Level& level, const char* word, unsigned int id, const char* after) {
  char room[kNameBytes];
  head(level);
  for (const char* part : {" ", word, " [", container::fieldName(id, room), after}) text(part);
}

}  // namespace

template <class S>
requires(std::is_same_v<S, std::ostream> ||
         std::is_same_v<S, Dumper>) void message::dump2(S& out, const char* prefix,
                                                        unsigned int indent) const {
  OutputTo<S> to(out);
  Dump(to, prefix).write(RepAccess::read(*this), indent);
}

template KL_API void message::dump2<std::ostream>(std::ostream&, const char*, unsigned int) const;
template KL_API void message::dump2<Dumper>(Dumper&, const char*, unsigned int) const;

std::ostream& operator<<(std::ostream& out, const message& m) {
  m.dump2(out, "", 0);
  return out;
}

}  // namespace kl
