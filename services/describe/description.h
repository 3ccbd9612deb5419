#pragma once
// description.h: what a service's messages are made of, as its description says.  docs/descriptions.md has the format.

#include <optional>
#include <string>
#include <vector>

namespace describe {

// A word for one value of a field.
struct Value {
  std::string word;
  unsigned int number = 0;

  friend bool operator==(const Value&, const Value&) = default;
};

// A field of messages, or a setting.
struct Field {
  std::string name;
  unsigned int id = 0;
  std::string doc;
  std::string unit;
  std::string since;
  std::string deprecated;  // what to use instead; empty: it is not
  std::string initial;     // of a setting: its value when none is given, as text
  bool isRequired = false;
  bool isSecret = false;
  std::optional<unsigned long long> min;  // of a number; of text, bytes or an array their length
  std::optional<unsigned long long> max;
  std::vector<Value> values;  // in the order of their numbers
  unsigned int line = 0;
};

struct Command {
  std::string name;  // short and small
  unsigned int code = 0;
  std::string right;
  std::string doc;
  std::string since;
  std::string deprecated;
  std::vector<std::string> takes;  // names of fields
  std::vector<std::string> gives;
  std::vector<std::string> errors;  // words of errors
  bool isStandard = false;
  unsigned int line = 0;
};

// The objects that one handler shows: a table of them, or one.
struct Object {
  std::string name;
  std::optional<unsigned int> handler;  // absent: the service itself answers
  std::string key;                      // the name of the field that tells objects apart; empty: there is one
  std::string doc;
  std::string store;      // the folder that the table is kept in; empty: it is not kept on disk
  bool isUndone = false;  // the undo service takes back its changes
  std::vector<std::string> fields;
  std::vector<Command> commands;
  unsigned int line = 0;
};

struct Topic {
  std::string name;
  unsigned int number = 0;
  std::string doc;
  unsigned int line = 0;
};

// Something that is gone and whose number is not used again.
struct Reserved {
  enum class Kind { kField, kSetting, kCommand, kObject, kTopic, kValue };
  Kind kind = Kind::kField;
  std::string scope;  // of a command its object, of a value its field
  unsigned int number = 0;
  unsigned int line = 0;

  bool names(Kind aKind, unsigned int aNumber, const std::string& aScope = {}) const {
    return kind == aKind && number == aNumber && scope == aScope;
  }
};

// Errors:    none; a value that is read and compared.
// Ownership: a value.
// Threads:   as any value.
// Cost:      some hundred bytes a field.
struct Description {
  std::string name;  // of the service; of the file where the service has none
  std::optional<unsigned int> id;
  std::string title;
  std::string version;
  std::string doc;
  std::string nameSpace;  // in C++
  std::vector<Field> fields;
  std::vector<Object> objects;
  std::vector<Field> settings;
  std::vector<Topic> topics;
  std::vector<Reserved> reserved;

  const Field* findField(const std::string& fieldName) const;  // null when there is none
};

}  // namespace describe
