// Things of two descriptions are the same where their names are; where a name is gone, where their numbers are, and then
// only programs that use the name are broken.  A thing gone without a trace may come back as something else, so it
// breaks programs too, unless its number is reserved.

#include "against.h"

#include <algorithm>
#include <optional>

#include "services/describe/field_id.h"

namespace klgen {
namespace {

using describe::Command;
using describe::Description;
using describe::Field;
using describe::Object;
using describe::Reserved;
using describe::Topic;
using describe::Value;
using Names = std::vector<std::string>;

template <class Thing, class Matches>
const Thing* findThing(const std::vector<Thing>& things, Matches matches) {
  const auto found = std::find_if(things.begin(), things.end(), matches);
  return found == things.end() ? nullptr : &*found;
}

std::string quoted(const std::string& name) { return "\"" + name + "\""; }

class Comparison {
 public:
  Comparison(const Description& older, const Description& newer) : older_(older), newer_(newer) {}

  std::vector<Break> run();

 private:
  void compareService();
  void compareReserved();
  std::optional<std::string> scopeNow(const Reserved& reserved) const;
  void compareFields(const std::vector<Field>& olds, const std::vector<Field>& news, Reserved::Kind kind);
  void compareField(const Field& old, const Field& now);
  void compareBounds(const Field& old, const Field& now);
  void compareValues(const Field& old, const Field& now);
  void compareDefaults();
  void compareObjects();
  void compareObject(const Object& old, const Object& now);
  void compareCommands(const Object& old, const Object& now);
  void compareCommand(const Command& old, const Command& now);
  void compareNames(const Names& olds, const Names& news, unsigned int line, const std::string& where);
  void compareTopics();

  // The field of the older description as it is now; null when it is gone.
  const Field* nowOf(const std::string& oldName) const;
  bool isReserved(Reserved::Kind kind, unsigned int number, const std::string& scope = {}) const;
  void renamed(const std::string& old, const std::string& now, unsigned int line) {
    source(line, quoted(old) + " is called " + quoted(now) + " now");
  }
  void gone(const std::string& what, bool reserved) {
    if (reserved) source(1, what + " is gone");
    else wire(1, what + " is gone, and its number is not reserved");
  }
  void wire(unsigned int line, const std::string& text) { breaks_.push_back({Level::kWire, line, text}); }
  void source(unsigned int line, const std::string& text) { breaks_.push_back({Level::kSource, line, text}); }

  const Description& older_;
  const Description& newer_;
  std::vector<Break> breaks_;
};

std::vector<Break> Comparison::run() {
  compareService();
  compareReserved();
  compareFields(older_.fields, newer_.fields, Reserved::Kind::kField);
  compareFields(older_.settings, newer_.settings, Reserved::Kind::kSetting);
  compareDefaults();
  compareObjects();
  compareTopics();
  return std::move(breaks_);
}

void Comparison::compareService() {
  if (older_.id && older_.id != newer_.id) wire(1, "the number of the service is another one");
  if (older_.name != newer_.name) renamed(older_.name, newer_.name, 1);
  if (older_.nameSpace != newer_.nameSpace) source(1, "the name space in C++ is another one");
}

void Comparison::compareReserved() {
  for (const Reserved& reserved : older_.reserved) {
    const auto scope = scopeNow(reserved);
    if (scope && !isReserved(reserved.kind, reserved.number, *scope)) {
      wire(1,
           "what line " + std::to_string(reserved.line) + " of the older one reserves is no longer reserved");
    }
  }
}

// The present name of a reserved number's scope; none when it is gone, and the number with it.
std::optional<std::string> Comparison::scopeNow(const Reserved& reserved) const {
  const auto nameNow = [&](const auto& olds, const auto& news, auto number) -> std::optional<std::string> {
    const auto named = [&](const auto& thing) { return thing.name == reserved.scope; };
    if (findThing(news, named) != nullptr) return reserved.scope;
    const auto* old = findThing(olds, named);
    if (old == nullptr) return {};
    const auto* now = findThing(news, [&](const auto& thing) { return thing.*number == old->*number; });
    return now != nullptr ? std::optional(now->name) : std::nullopt;
  };
  if (reserved.kind == Reserved::Kind::kCommand)
    return nameNow(older_.objects, newer_.objects, &Object::handler);
  if (reserved.kind != Reserved::Kind::kValue) return reserved.scope;
  const auto field = nameNow(older_.fields, newer_.fields, &Field::id);
  return field ? field : nameNow(older_.settings, newer_.settings, &Field::id);
}

// --- Fields.

void Comparison::compareFields(const std::vector<Field>& olds, const std::vector<Field>& news,
                               Reserved::Kind kind) {
  for (const Field& old : olds) {
    const Field* named = findThing(news, [&](const Field& f) { return f.name == old.name; });
    const Field* numbered = findThing(news, [&](const Field& f) { return f.id == old.id; });
    if (named != nullptr && named->id != old.id) {
      wire(named->line, quoted(old.name) + " was " + describe::fieldIdText(old.id));
    } else if (named != nullptr) {
      compareField(old, *named);
    } else if (numbered != nullptr) {
      renamed(old.name, numbered->name, numbered->line);
      compareField(old, *numbered);
    } else {
      gone(quoted(old.name), isReserved(kind, old.id));
    }
  }
}

void Comparison::compareField(const Field& old, const Field& now) {
  if (old.isRequired != now.isRequired) {
    wire(now.line, quoted(now.name) + (now.isRequired ? " is required now" : " was required"));
  }
  if (!old.unit.empty() && !now.unit.empty() && old.unit != now.unit) {
    wire(now.line, quoted(now.name) + " was in " + old.unit);
  }
  compareBounds(old, now);
  compareValues(old, now);
}

// Wider bounds are no break: who keeps the narrower ones keeps them, too.
void Comparison::compareBounds(const Field& old, const Field& now) {
  if (now.min.value_or(0) > old.min.value_or(0)) {
    wire(now.line, quoted(now.name) + " could be less than " + std::to_string(*now.min));
  }
  if (now.max && (!old.max || *now.max < *old.max)) {
    wire(now.line, quoted(now.name) + " could be more than " + std::to_string(*now.max));
  }
}

void Comparison::compareValues(const Field& old, const Field& now) {
  if (old.values.empty() && !now.values.empty() && !describe::isArray(now.id)) {
    source(now.line, quoted(now.name) + " is an enumeration now");
  }
  for (const Value& value : old.values) {
    const Value* named = findThing(now.values, [&](const Value& v) { return v.word == value.word; });
    const Value* numbered = findThing(now.values, [&](const Value& v) { return v.number == value.number; });
    const std::string label = "the value " + quoted(value.word) + " of " + quoted(now.name);
    if (named != nullptr && named->number != value.number) {
      wire(now.line, label + " was " + std::to_string(value.number));
    } else if (named == nullptr && numbered != nullptr) {
      renamed(value.word, numbered->word, now.line);
    } else if (named == nullptr) {
      gone(label, isReserved(Reserved::Kind::kValue, value.number, now.name));
    }
  }
}

// The header has a constant for each of these.
void Comparison::compareDefaults() {
  for (const Field& old : older_.settings) {
    const Field* now = findThing(newer_.settings, [&](const Field& f) { return f.name == old.name; });
    if (now == nullptr) continue;
    const auto mustStay = [&](bool was, bool is, const std::string& what) {
      if (was && !is) source(now->line, quoted(old.name) + " had a " + what);
    };
    mustStay(!old.initial.empty(), !now->initial.empty(), "default");
    mustStay(old.min.has_value(), now->min.has_value(), "min");
    mustStay(old.max.has_value(), now->max.has_value(), "max");
  }
}

// --- Objects.

void Comparison::compareObjects() {
  for (const Object& old : older_.objects) {
    const Object* named = findThing(newer_.objects, [&](const Object& o) { return o.name == old.name; });
    const Object* numbered =
        findThing(newer_.objects, [&](const Object& o) { return o.handler == old.handler; });
    if (named != nullptr) {
      if (named->handler != old.handler) wire(named->line, quoted(old.name) + " has another handler");
      compareObject(old, *named);
    } else if (numbered != nullptr) {
      renamed(old.name, numbered->name, numbered->line);
      compareObject(old, *numbered);
    } else {
      gone(quoted(old.name), old.handler && isReserved(Reserved::Kind::kObject, *old.handler));
    }
  }
}

void Comparison::compareObject(const Object& old, const Object& now) {
  const Field* key = nowOf(old.key);
  if ((key != nullptr ? key->name : old.key) != now.key) {
    wire(now.line, "the key of " + quoted(now.name) + " is another one");
  }
  compareNames(old.fields, now.fields, now.line, quoted(now.name));
  compareCommands(old, now);
}

// A field that is gone altogether is told once, among the fields; but who must be sent it misses it.  Programs name the
// members of a structure in their order.
void Comparison::compareNames(const Names& olds, const Names& news, unsigned int line,
                              const std::string& where) {
  const auto has = [](const Names& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
  };
  Names known;
  for (const std::string& old : olds) {
    const Field* now = nowOf(old);
    const Field* before = older_.findField(old);
    if (now == nullptr && before != nullptr && before->isRequired)
      wire(line, where + " had " + quoted(old) + ", which was required");
    if (now == nullptr) continue;
    known.push_back(now->name);
    if (!has(news, now->name)) wire(line, where + " had " + quoted(now->name));
  }
  for (const std::string& name : news) {
    const Field* field = newer_.findField(name);
    if (field != nullptr && field->isRequired && !has(known, name)) {
      wire(line, where + " has " + quoted(name) + " now, which is required");
    }
  }
  Names both;
  for (const std::string& name : news)
    if (has(known, name)) both.push_back(name);
  std::erase_if(known, [&](const std::string& name) { return !has(news, name); });
  if (both != known) source(line, where + " has its fields in another order");
}

void Comparison::compareCommands(const Object& old, const Object& now) {
  for (const Command& command : old.commands) {
    const Command* named = findThing(now.commands, [&](const Command& c) { return c.name == command.name; });
    const Command* numbered =
        findThing(now.commands, [&](const Command& c) { return c.code == command.code; });
    if (named != nullptr) {
      if (named->code != command.code) wire(named->line, quoted(command.name) + " had another code");
      compareCommand(command, *named);
    } else if (numbered != nullptr) {
      renamed(command.name, numbered->name, numbered->line);
      compareCommand(command, *numbered);
    } else {
      gone(quoted(command.name) + " of " + quoted(now.name),
           isReserved(Reserved::Kind::kCommand, command.code, now.name));
    }
  }
}

void Comparison::compareCommand(const Command& old, const Command& now) {
  if (old.right != now.right) wire(now.line, quoted(now.name) + " needed the right: " + old.right);
  compareNames(old.takes, now.takes, now.line, "what " + quoted(now.name) + " takes");
  compareNames(old.gives, now.gives, now.line, "what " + quoted(now.name) + " gives");
}

void Comparison::compareTopics() {
  for (const Topic& old : older_.topics) {
    const Topic* named = findThing(newer_.topics, [&](const Topic& t) { return t.name == old.name; });
    const Topic* numbered = findThing(newer_.topics, [&](const Topic& t) { return t.number == old.number; });
    if (named != nullptr && named->number != old.number) {
      wire(named->line, "the topic " + quoted(old.name) + " was " + std::to_string(old.number));
    } else if (named == nullptr && numbered != nullptr) {
      renamed(old.name, numbered->name, numbered->line);
    } else if (named == nullptr) {
      gone("the topic " + quoted(old.name), isReserved(Reserved::Kind::kTopic, old.number));
    }
  }
}

const Field* Comparison::nowOf(const std::string& oldName) const {
  if (const Field* named = newer_.findField(oldName)) return named;
  const Field* old = older_.findField(oldName);
  if (old == nullptr) return nullptr;
  return findThing(newer_.fields, [&](const Field& f) { return f.id == old->id; });
}

bool Comparison::isReserved(Reserved::Kind kind, unsigned int number, const std::string& scope) const {
  return findThing(newer_.reserved, [&](const Reserved& r) { return r.names(kind, number, scope); }) !=
         nullptr;
}

}  // namespace

std::vector<Break> breaksOf(const Description& older, const Description& newer) {
  return Comparison(older, newer).run();
}

}  // namespace klgen
