// Each check looks at one kind of thing.  A mistake stands in the line of the later of two that clash.

#include "services/describe/check.h"

#include <map>
#include <set>
#include <tuple>

#include "services/describe/field_id.h"

namespace describe {
namespace {

bool isSmall(char c) { return c >= 'a' && c <= 'z'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

class Checker {
 public:
  Checker(const Description& description, const std::string& file, common::Mistakes& mistakes)
      : description_(description), file_(file), mistakes_(mistakes) {}

  void run() {
    checkName(description_.name, 1, "service");
    checkName(description_.nameSpace, 1, "name space");
    checkFields(description_.fields, "field", Reserved::Kind::kField);
    checkFields(description_.settings, "setting", Reserved::Kind::kSetting);
    checkObjects();
    checkTopics();
  }

 private:
  using Numbers = std::map<unsigned int, std::string>;

  void checkFields(const std::vector<Field>& fields, const std::string& kind, Reserved::Kind reservedKind);
  void checkField(const Field& field);
  void checkBounds(const Field& field);
  void checkValues(const Field& field);
  void checkObjects();
  void checkObject(const Object& object);
  void checkKeeping(const Object& object);
  void checkCommands(const Object& object);
  void checkTopics();
  void checkKnown(const std::vector<std::string>& names, unsigned int line, const std::string& where);
  void checkName(const std::string& name, unsigned int line, const std::string& kind);
  void checkFree(Reserved::Kind kind, unsigned int number, const std::string& scope, unsigned int line,
                 const std::string& what);

  void mistake(unsigned int line, const std::string& text) { mistakes_.push_back({file_, line, text}); }
  // Remembers a name and a number; each may come once.
  void once(std::set<std::string>& names, Numbers& numbers, const std::string& name, unsigned int number,
            unsigned int line, const std::string& kind, const std::string& numberText) {
    if (!names.insert(name).second) mistake(line, "the " + kind + " \"" + name + "\" is there already");
    const auto [place, isNew] = numbers.emplace(number, name);
    if (!isNew) mistake(line, numberText + " is \"" + place->second + "\" already");
  }

  const Description& description_;
  const std::string& file_;
  common::Mistakes& mistakes_;
};

void Checker::checkFields(const std::vector<Field>& fields, const std::string& kind,
                          Reserved::Kind reservedKind) {
  std::set<std::string> names;
  Numbers numbers;
  for (const Field& field : fields) {
    checkName(field.name, field.line, kind);
    const std::string id = fieldIdText(field.id);
    once(names, numbers, field.name, field.id, field.line, kind, id);
    checkFree(reservedKind, field.id, "", field.line, id);
    checkField(field);
  }
}

void Checker::checkField(const Field& field) {
  checkBounds(field);
  checkValues(field);
}

void Checker::checkBounds(const Field& field) {
  if (!field.min && !field.max) return;
  const FieldType type = elementType(field.id);
  if (!isArray(field.id) && type != kU32 && type != kU64 && type != kString && type != kRaw) {
    mistake(field.line, "\"" + field.name + "\": a " + typeWord(field.id) + " has no min and no max");
  }
  if (field.min && field.max && *field.min > *field.max) {
    mistake(field.line, "\"" + field.name + "\": min is above max");
  }
  const unsigned long long most = !isArray(field.id) && type == kU64 ? ~0ull : 0xffffffffull;
  if (field.min.value_or(0) > most || field.max.value_or(0) > most) {
    mistake(field.line, "\"" + field.name + "\": no value is above 4294967295");
  }
}

void Checker::checkValues(const Field& field) {
  std::set<std::string> words;
  Numbers numbers;
  for (const Value& value : field.values) {
    checkName(value.word, field.line, "value");
    once(words, numbers, value.word, value.number, field.line, "value",
         "the value " + std::to_string(value.number));
    checkFree(Reserved::Kind::kValue, value.number, field.name, field.line,
              "the value " + std::to_string(value.number));
  }
}

void Checker::checkObjects() {
  std::set<std::string> names;
  Numbers handlers;
  for (const Object& object : description_.objects) {
    checkName(object.name, object.line, "object");
    const unsigned int handler = object.handler.value_or(~0u);
    once(names, handlers, object.name, handler, object.line, "object",
         object.handler ? "handler " + std::to_string(handler) : "the service itself");
    if (object.handler) {
      checkFree(Reserved::Kind::kObject, handler, "", object.line, "handler " + std::to_string(handler));
    }
    checkObject(object);
  }
}

void Checker::checkObject(const Object& object) {
  checkKnown(object.fields, object.line, "\"" + object.name + "\"");
  std::set<std::string> names;
  for (const std::string& name : object.fields) {
    if (!names.insert(name).second) {
      mistake(object.line, "\"" + object.name + "\" has the field \"" + name + "\" already");
    }
  }
  if (!object.key.empty() && !names.contains(object.key)) {
    mistake(object.line, "the key \"" + object.key + "\" is no field of \"" + object.name + "\"");
  }
  checkKeeping(object);
  checkCommands(object);
}

// The folder of a store is a name, so that it leads nowhere else.
void Checker::checkKeeping(const Object& object) {
  if (!object.store.empty()) checkName(object.store, object.line, "store");
  if (!object.key.empty()) return;
  if (!object.store.empty())
    mistake(object.line, "\"" + object.name + "\": only a table with a key has a store");
  if (object.isUndone) mistake(object.line, "\"" + object.name + "\": only a table with a key has an undo");
}

void Checker::checkCommands(const Object& object) {
  std::set<std::string> names;
  Numbers codes;
  for (const Command& command : object.commands) {
    checkName(command.name, command.line, "command");
    once(names, codes, command.name, command.code, command.line, "command",
         "the code " + std::to_string(command.code));
    checkFree(Reserved::Kind::kCommand, command.code, object.name, command.line,
              "the code " + std::to_string(command.code));
    checkKnown(command.takes, command.line, "what \"" + command.name + "\" takes");
    checkKnown(command.gives, command.line, "what \"" + command.name + "\" gives");
  }
}

void Checker::checkTopics() {
  std::set<std::string> names;
  Numbers numbers;
  for (const Topic& topic : description_.topics) {
    checkName(topic.name, topic.line, "topic");
    const std::string number = "the topic " + std::to_string(topic.number);
    once(names, numbers, topic.name, topic.number, topic.line, "topic", number);
    checkFree(Reserved::Kind::kTopic, topic.number, "", topic.line, number);
  }
}

void Checker::checkKnown(const std::vector<std::string>& names, unsigned int line, const std::string& where) {
  const std::string unknown = where + ": there is no field \"";
  for (const std::string& name : names)
    if (description_.findField(name) == nullptr)
      mistake(line, std::string(unknown).append(name).append("\""));
}

void Checker::checkName(const std::string& name, unsigned int line, const std::string& kind) {
  if (isName(name)) return;
  mistake(line, "the " + kind + " \"" + name +
                    "\": expected words of small letters and digits with single underscores between them");
}

void Checker::checkFree(Reserved::Kind kind, unsigned int number, const std::string& scope, unsigned int line,
                        const std::string& what) {
  for (const Reserved& reserved : description_.reserved) {
    if (reserved.names(kind, number, scope)) mistake(line, what + " is reserved");
  }
}

}  // namespace

bool isName(const std::string& word) {
  if (word.empty() || !isSmall(word.front()) || word.back() == '_') return false;
  for (std::size_t i = 0; i < word.size(); ++i) {
    const char c = word[i];
    if (!isSmall(c) && !isDigit(c) && c != '_') return false;
    if (c == '_' && word[i - 1] == '_') return false;
  }
  return true;
}

void check(const Description& description, const std::string& file, common::Mistakes& mistakes) {
  Checker(description, file, mistakes).run();
}

}  // namespace describe
