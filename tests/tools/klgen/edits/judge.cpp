// A program is played by walking its description: fields are put into a kl::message by their ids and types, and read back
// by the ids and types of the other description.  Each thing has a meaning, by which both sides are compared: that is its
// name in the older description.

#include "tests/tools/klgen/edits/judge.h"

#include <algorithm>
#include <limits>
#include <map>

#include "kl/field.h"
#include "services/describe/field_id.h"
#include "tools/klgen/identifiers.h"

namespace edits {
namespace {

using describe::Command;
using describe::Description;
using describe::Field;
using describe::Object;
using describe::Reserved;
using describe::Topic;
using describe::Value;
using Names = std::vector<std::string>;
using Texts = std::map<std::string, std::string>;  // by meaning

constexpr unsigned int kNoHandler = ~0u;

// A thing that only an ancestor or only a successor has is like nothing else.
bool isUnique(const std::string& name) { return name.starts_with("gone_") || name.starts_with("come_"); }

unsigned int numberOf(const Field& field) { return field.id; }
unsigned int numberOf(const Object& object) { return object.handler.value_or(kNoHandler); }
unsigned int numberOf(const Command& command) { return command.code; }
unsigned int numberOf(const Topic& topic) { return topic.number; }
unsigned int numberOf(const Value& value) { return value.number; }
template <class Thing>
const std::string& nameOf(const Thing& thing) {
  return thing.name;
}
const std::string& nameOf(const Value& value) { return value.word; }

template <class Thing>
const Thing* withName(const std::vector<Thing>& things, const std::string& name) {
  const auto found =
      std::find_if(things.begin(), things.end(), [&](const Thing& thing) { return nameOf(thing) == name; });
  return found == things.end() ? nullptr : &*found;
}
template <class Thing>
const Thing* withNumber(const std::vector<Thing>& things, unsigned int number) {
  const auto found = std::find_if(things.begin(), things.end(),
                                  [&](const Thing& thing) { return numberOf(thing) == number; });
  return found == things.end() ? nullptr : &*found;
}

// The meaning of each thing in the newer list.
template <class Thing>
std::string meaningOf(const Thing& thing, const std::vector<Thing>& olds, const std::vector<Thing>& news) {
  if (withName(olds, nameOf(thing)) != nullptr || isUnique(nameOf(thing))) return nameOf(thing);
  const Thing* old = withNumber(olds, numberOf(thing));
  const bool isRenamed = old != nullptr && !isUnique(nameOf(*old)) && withName(news, nameOf(*old)) == nullptr;
  return isRenamed ? nameOf(*old) : "new " + nameOf(thing);
}

template <class Thing>
const Thing* withMeaning(const std::string& meaning, const std::vector<Thing>& olds,
                         const std::vector<Thing>& news) {
  const auto found = std::find_if(
      news.begin(), news.end(), [&](const Thing& thing) { return meaningOf(thing, olds, news) == meaning; });
  return found == news.end() ? nullptr : &*found;
}

bool isReserved(const Description& d, Reserved::Kind kind, unsigned int number,
                const std::string& scope = {}) {
  return std::any_of(d.reserved.begin(), d.reserved.end(),
                     [&](const Reserved& reserved) { return reserved.names(kind, number, scope); });
}

// --- Ancestors and successors.

std::string uniqueName(const std::string& kind) {
  static unsigned int count = 0;
  return kind + std::to_string(++count);
}

Field fieldOf(const std::string& name, unsigned int id) {
  Field field;
  field.name = name;
  field.id = id;
  return field;
}

Description ancestorOf(Description d) {
  for (const Reserved& reserved : d.reserved) {
    const std::string name = uniqueName("gone_");
    const auto inScope = [&](auto& things, auto add) {
      for (auto& thing : things)
        if (thing.name == reserved.scope) add(thing);
    };
    const auto addValue = [&](Field& field) { field.values.push_back({name, reserved.number}); };
    switch (reserved.kind) {
      case Reserved::Kind::kField: d.fields.push_back(fieldOf(name, reserved.number)); break;
      case Reserved::Kind::kSetting: d.settings.push_back(fieldOf(name, reserved.number)); break;
      case Reserved::Kind::kTopic: d.topics.push_back({name, reserved.number, ""}); break;
      case Reserved::Kind::kObject:
        d.objects.emplace_back().name = name;
        d.objects.back().handler = reserved.number;
        break;
      case Reserved::Kind::kValue: inScope(d.fields, addValue); break;
      case Reserved::Kind::kCommand:
        inScope(d.objects, [&](Object& object) {
          object.commands.emplace_back().name = name;
          object.commands.back().code = reserved.number;
        });
    }
  }
  return d;
}

// Takes each number that the older list used and that is free now.
template <class Thing, class Make>
void reuse(const std::vector<Thing>& olds, std::vector<Thing>& news, const Description& d,
           Reserved::Kind kind, const std::string& scope, Make make) {
  for (const Thing& old : olds) {
    const unsigned int number = numberOf(old);
    if (withNumber(news, number) == nullptr && !isReserved(d, kind, number, scope))
      news.push_back(make(uniqueName("come_"), number));
  }
}

void reuseFields(const std::vector<Field>& olds, std::vector<Field>& news, const Description& d,
                 Reserved::Kind kind) {
  const std::vector<Field> before = news;
  for (Field& field : news) {
    if (describe::elementType(field.id) != describe::kU32 || describe::isArray(field.id)) continue;
    if (const Field* old = withName(olds, meaningOf(field, olds, before)))
      reuse(old->values, field.values, d, Reserved::Kind::kValue, field.name,
            [](const std::string& word, unsigned int number) {
              return Value{word, number};
            });
  }
  reuse(olds, news, d, kind, "", fieldOf);
}

Description successorOf(Description d, const Description& older) {
  reuseFields(older.fields, d.fields, d, Reserved::Kind::kField);
  reuseFields(older.settings, d.settings, d, Reserved::Kind::kSetting);
  reuse(older.topics, d.topics, d, Reserved::Kind::kTopic, "",
        [](const std::string& name, unsigned int number) {
          return Topic{name, number, ""};
        });
  const std::vector<Object> before = d.objects;
  for (Object& object : d.objects)
    if (const Object* old = withName(older.objects, meaningOf(object, older.objects, before)))
      reuse(old->commands, object.commands, d, Reserved::Kind::kCommand, object.name,
            [](const std::string& name, unsigned int code) {
              Command command;
              command.name = name;
              command.code = code;
              return command;
            });
  reuse(older.objects, d.objects, d, Reserved::Kind::kObject, "",
        [](const std::string& name, unsigned int number) {
          Object object;
          object.name = name;
          if (number != kNoHandler) object.handler = number;
          return object;
        });
  return d;
}

// --- Messages.

// A value of each type that stands for nothing but its meaning.
template <class T>
T madeValue(unsigned int number);
template <>
bool madeValue(unsigned int) {
  return true;
}
template <>
unsigned int madeValue(unsigned int number) {
  return number;
}
template <>
unsigned long long madeValue(unsigned int number) {
  return (1ull << 40) + number;
}
template <>
std::string madeValue(unsigned int number) {
  return "text " + std::to_string(number);
}
template <>
std::vector<unsigned char> madeValue(unsigned int number) {
  return {1, static_cast<unsigned char>(number)};
}
template <>
std::vector<unsigned int> madeValue(unsigned int number) {
  return {number, 7};
}
template <>
std::vector<std::string> madeValue(unsigned int number) {
  return {"", std::to_string(number)};
}

std::string textOf(const std::string& text) { return text; }
template <class Number>
std::string textOf(Number number) {
  return std::to_string(number);
}
template <class Element>
std::string textOf(const std::vector<Element>& elements) {
  std::string text;
  for (const Element& element : elements) text += textOf(element) + ",";
  return text;
}

template <class T>
std::string put(kl::message& m, unsigned int id, unsigned int number) {
  const T value = madeValue<T>(number);
  kl::field_operations<T>::insert(m, id, value);
  return textOf(value);
}
template <class T>
std::string take(const kl::message& m, unsigned int id) {
  return kl::field_operations<T>::has(m, id) ? textOf(kl::field_operations<T>::get(m, id, T())) : "absent";
}

struct Type {
  unsigned int bits;
  std::string (*put)(kl::message& m, unsigned int id, unsigned int number);
  std::string (*take)(const kl::message& m, unsigned int id);
};

template <class T>
constexpr Type typeFor() {
  return {kl::field_operations<T>::typeBits, put<T>, take<T>};
}

const Type& typeOf(unsigned int id) {
  static constexpr Type kTypes[] = {typeFor<bool>(),
                                    typeFor<unsigned int>(),
                                    typeFor<unsigned long long>(),
                                    typeFor<std::string>(),
                                    typeFor<std::vector<unsigned char>>(),
                                    typeFor<std::vector<unsigned int>>(),
                                    typeFor<std::vector<std::string>>()};
  return *std::find_if(std::begin(kTypes), std::end(kTypes),
                       [&](const Type& type) { return type.bits == (id & describe::kTypeMask); });
}

// One version of a program.  It knows the meanings of its fields.
struct Program {
  const Description& d;
  const std::vector<Field>& olds;

  std::string meaning(const Field& field) const { return meaningOf(field, olds, d.fields); }
  const Field& field(const std::string& name) const { return *d.findField(name); }
};

// Sends the fields of the list, all or only those that must be there.
Texts send(const Program& from, const Names& list, bool all, kl::message& m) {
  Texts sent;
  unsigned int number = 100;
  for (const std::string& name : list) {
    const Field& field = from.field(name);
    if (all || field.isRequired) sent[from.meaning(field)] = typeOf(field.id).put(m, field.id, ++number);
  }
  return sent;
}

// Reads the fields of the list: each is what was sent, and those that must be there are.
std::string receive(const Program& to, const Names& list, const kl::message& m, const Texts& sent) {
  for (const std::string& name : list) {
    const Field& field = to.field(name);
    const std::string text = typeOf(field.id).take(m, field.id);
    const auto meant = sent.find(to.meaning(field));
    if (text == "absent" && field.isRequired) return "reads " + name + ", which nobody sent";
    if (text == "absent" && meant != sent.end()) return "loses " + name;
    if (text != "absent" && (meant == sent.end() || meant->second != text))
      return "takes something for " + name;
  }
  return {};
}

std::string exchange(const Program& from, const Names& sent, const Program& to, const Names& read) {
  for (const bool all : {true, false}) {
    kl::message m;
    const Texts texts = send(from, sent, all, m);
    if (const std::string fault = receive(to, read, m, texts); !fault.empty()) return fault;
  }
  return {};
}

// --- What is compared without a message of its own.

// Things that are named by numbers, each in its place of a message.
template <class Thing>
std::string confusion(const std::vector<Thing>& olds, const std::vector<Thing>& news) {
  for (const Thing& old : olds) {
    const Thing* there = withNumber(news, numberOf(old));
    const Thing* same = withMeaning(nameOf(old), olds, news);
    if (there != nullptr && meaningOf(*there, olds, news) != nameOf(old))
      return nameOf(old) + " is taken for " + nameOf(*there);
    if (same != nullptr && numberOf(*same) != numberOf(old)) return nameOf(old) + " has another number";
  }
  return {};
}

unsigned long long lowest(const Field& field) { return field.min.value_or(0); }
unsigned long long highest(const Field& field) {
  return field.max.value_or(std::numeric_limits<unsigned long long>::max());
}

std::string confusionOfFields(const std::vector<Field>& olds, const std::vector<Field>& news) {
  if (const std::string fault = confusion(olds, news); !fault.empty()) return fault;
  for (const Field& old : olds) {
    const Field* now = withMeaning(old.name, olds, news);
    if (now == nullptr) continue;
    if (!old.unit.empty() && !now->unit.empty() && old.unit != now->unit)
      return old.name + " has another unit";
    if (lowest(old) < lowest(*now) || highest(old) > highest(*now)) return old.name + " is refused";
    if (const std::string fault = confusion(old.values, now->values); !fault.empty()) return fault;
  }
  return {};
}

// --- The conversation of two programs.

class Conversation {
 public:
  Conversation(const Description& older, const Description& newer)
      : older_{older, older.fields}, newer_{newer, older.fields} {}

  std::string fault() const;

 private:
  std::string faultOfObjects() const;
  std::string faultOfCommands(const Object& old, const Object& now) const;
  std::string faultOfLists(const Names& old, const Names& now) const;
  std::string faultOfAnyMessage() const;
  bool isStillThere(const std::string& meaning, const Names& list) const;

  Program older_;
  Program newer_;
};

std::string Conversation::fault() const {
  const Description& older = older_.d;
  const Description& newer = newer_.d;
  if (older.id && older.id != newer.id) return "the service is not reached";
  for (const std::string& fault :
       {confusionOfFields(older.fields, newer.fields), confusionOfFields(older.settings, newer.settings),
        confusion(older.topics, newer.topics), confusion(older.objects, newer.objects), faultOfAnyMessage()})
    if (!fault.empty()) return fault;
  return faultOfObjects();
}

// A message that has every field that both know.
std::string Conversation::faultOfAnyMessage() const {
  Names olds, news;
  for (const Field& now : newer_.d.fields) {
    const std::string meaning = newer_.meaning(now);
    if (older_.d.findField(meaning) == nullptr) continue;
    olds.push_back(meaning);
    news.push_back(now.name);
  }
  return faultOfLists(olds, news);
}

std::string Conversation::faultOfObjects() const {
  for (const Object& old : older_.d.objects) {
    const Object* now = withMeaning(old.name, older_.d.objects, newer_.d.objects);
    if (now == nullptr) continue;
    const std::string key = now->key.empty() ? "" : newer_.meaning(newer_.field(now->key));
    if (key != old.key) return old.name + " is told apart by another field";
    if (const std::string fault = faultOfLists(old.fields, now->fields); !fault.empty()) return fault;
    if (const std::string fault = faultOfCommands(old, *now); !fault.empty()) return fault;
  }
  return {};
}

std::string Conversation::faultOfCommands(const Object& old, const Object& now) const {
  if (const std::string fault = confusion(old.commands, now.commands); !fault.empty()) return fault;
  for (const Command& command : old.commands) {
    const Command* same = withMeaning(command.name, old.commands, now.commands);
    if (same == nullptr) continue;
    if (command.right != same->right) return command.name + " is for others";
    if (const std::string fault = faultOfLists(command.takes, same->takes); !fault.empty()) return fault;
    if (const std::string fault = faultOfLists(command.gives, same->gives); !fault.empty()) return fault;
  }
  return {};
}

std::string Conversation::faultOfLists(const Names& old, const Names& now) const {
  if (const std::string fault = exchange(older_, old, newer_, now); !fault.empty())
    return "the newer one " + fault;
  if (const std::string fault = exchange(newer_, now, older_, old); !fault.empty())
    return "the older one " + fault;
  for (const std::string& name : old)
    if (!isStillThere(name, now)) return name + " is neither read nor sent any more";
  return {};
}

// A field that is gone as a whole is gone on purpose.
bool Conversation::isStillThere(const std::string& meaning, const Names& list) const {
  const Field* now = withMeaning(meaning, older_.d.fields, newer_.d.fields);
  return now == nullptr || std::find(list.begin(), list.end(), now->name) != list.end();
}

void addStructures(std::vector<Structures>& all, const std::string& older, const std::string& newer,
                   const Names& oldFields, const Names& newFields) {
  if (!oldFields.empty() && !newFields.empty())
    all.push_back({klgen::typeName(older), klgen::typeName(newer), oldFields, newFields});
}

// The name of a structure for a command ends with what it is for.
void addStructuresOfCommands(std::vector<Structures>& all, const Object& old, const Object& now) {
  for (const Command& command : old.commands) {
    const Command* same = withMeaning(command.name, old.commands, now.commands);
    if (same == nullptr) continue;
    const std::string older = old.name + "_" + command.name;
    const std::string newer = now.name + "_" + same->name;
    addStructures(all, older + "_request", newer + "_request", command.takes, same->takes);
    addStructures(all, older + "_reply", newer + "_reply", command.gives, same->gives);
  }
}

template <class Thing>
std::string lostIn(const std::vector<Thing>& olds, const std::vector<Thing>& news) {
  for (const Thing& old : olds)
    if (withName(news, nameOf(old)) == nullptr) return nameOf(old);
  return {};
}

std::string lostFields(const std::vector<Field>& olds, const std::vector<Field>& news) {
  for (const Field& old : olds) {
    const Field* now = withName(news, old.name);
    if (now == nullptr) return old.name;
    if (const std::string lost = lostIn(old.values, now->values); !lost.empty()) return lost;
  }
  return {};
}

}  // namespace

std::string misunderstanding(const Description& older, const Description& newer) {
  const Description ancestor = ancestorOf(older);
  return Conversation(ancestor, successorOf(newer, ancestor)).fault();
}

std::vector<Structures> commonStructures(const Description& older, const Description& newer) {
  std::vector<Structures> all;
  for (const Object& old : older.objects) {
    const Object* now = withMeaning(old.name, older.objects, newer.objects);
    if (now == nullptr) continue;
    addStructures(all, old.name, now->name, old.fields, now->fields);
    addStructuresOfCommands(all, old, *now);
  }
  return all;
}

std::string meaningOfField(const std::string& name, const Description& older, const Description& newer) {
  return meaningOf(*newer.findField(name), older.fields, newer.fields);
}

std::string misunderstandingOfStructures(const Description& older, const Description& newer) {
  const Program old{older, older.fields};
  const Program now{newer, older.fields};
  for (const Structures& both : commonStructures(older, newer)) {
    if (const std::string fault = exchange(old, both.oldFields, now, both.newFields); !fault.empty())
      return fault;
    if (const std::string fault = exchange(now, both.newFields, old, both.oldFields); !fault.empty())
      return fault;
  }
  return {};
}

std::string lostName(const Description& older, const Description& newer) {
  if (older.name != newer.name) return older.name;
  for (const std::string& lost :
       {lostFields(older.fields, newer.fields), lostFields(older.settings, newer.settings),
        lostIn(older.objects, newer.objects), lostIn(older.topics, newer.topics)})
    if (!lost.empty()) return lost;
  for (const Object& old : older.objects)
    if (const std::string lost = lostIn(old.commands, withName(newer.objects, old.name)->commands);
        !lost.empty())
      return lost;
  return {};
}

}  // namespace edits
