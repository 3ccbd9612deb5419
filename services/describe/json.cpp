// JSON is written in one pass: a writer knows whether a comma is due, and a key without a value is left out.

#include "services/describe/json.h"

#include "services/describe/field_id.h"
#include "services/describe/quoted.h"
#include "services/describe/words.h"

namespace describe {
namespace {

// An object of JSON, key by key.
class JsonObject {
 public:
  void add(const std::string& key, const std::string& json) {
    text_ += (text_.empty() ? "" : ",") + quoted(key) + ":" + json;
  }
  void addText(const std::string& key, const std::string& text) {
    if (!text.empty()) add(key, quoted(text));
  }
  template <class Number>
  void addNumber(const std::string& key, const std::optional<Number>& number) {
    if (number) add(key, std::to_string(*number));
  }
  void addTrue(const std::string& key, bool truth) {
    if (truth) add(key, "true");
  }
  template <class Entries, class ToJson>
  void addList(const std::string& key, const Entries& entries, ToJson toJson) {
    std::string list;
    for (const auto& entry : entries) list += (list.empty() ? "" : ",") + toJson(entry);
    if (!list.empty()) add(key, "[" + list + "]");
  }
  std::string text() const { return "{" + text_ + "}"; }

 private:
  std::string text_;
};

std::string fieldJson(const Field& field) {
  JsonObject json;
  json.addText("name", field.name);
  json.addText("type", typeWord(field.id));
  json.add("id", std::to_string(field.id));
  json.addText("field", fieldIdText(field.id));
  json.addText("doc", field.doc);
  json.addText("unit", field.unit);
  json.addNumber("min", field.min);
  json.addNumber("max", field.max);
  JsonObject values;
  for (const Value& value : field.values) values.add(value.word, std::to_string(value.number));
  if (!field.values.empty()) json.add("values", values.text());
  json.addText("default", field.initial);
  json.addTrue("required", field.isRequired);
  json.addTrue("secret", field.isSecret);
  json.addText("since", field.since);
  json.addText("deprecated", field.deprecated);
  return json.text();
}

std::string commandJson(const Command& command) {
  JsonObject json;
  json.addText("name", command.name);
  json.add("code", std::to_string(command.code));
  json.addText("right", command.right);
  json.addText("doc", command.doc);
  json.addList("takes", command.takes, quoted);
  json.addList("gives", command.gives, quoted);
  json.addList("errors", command.errors, quoted);
  json.addText("since", command.since);
  json.addText("deprecated", command.deprecated);
  return json.text();
}

std::string objectJson(const Object& object) {
  JsonObject json;
  json.addText("name", object.name);
  json.addNumber("handler", object.handler);
  json.addText("key", object.key);
  json.addText("doc", object.doc);
  json.addText("store", object.store);
  json.addTrue("undo", object.isUndone);
  json.addList("fields", object.fields, quoted);
  json.addList("commands", object.commands, commandJson);
  return json.text();
}

std::string topicJson(const Topic& topic) {
  JsonObject json;
  json.addText("name", topic.name);
  json.add("number", std::to_string(topic.number));
  json.addText("doc", topic.doc);
  return json.text();
}

}  // namespace

std::string jsonOf(const Description& description) {
  JsonObject json;
  json.addText("name", description.name);
  json.addNumber("id", description.id);
  json.addText("title", description.title);
  json.addText("version", description.version);
  json.addText("doc", description.doc);
  json.addList("fields", description.fields, fieldJson);
  json.addList("objects", description.objects, objectJson);
  json.addList("settings", description.settings, fieldJson);
  json.addList("topics", description.topics, topicJson);
  return json.text() + "\n";
}

}  // namespace describe
