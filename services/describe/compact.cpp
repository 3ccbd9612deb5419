// The description is written list by list, each of them on few lines, with as much as there is room for.

#include "services/describe/compact.h"

#include "services/describe/check.h"
#include "services/describe/field_id.h"
#include "services/describe/quoted.h"

namespace describe {
namespace {

enum class Amount { kAll, kWithoutSentences, kNames };

template <class Entries, class ToText>
std::string listOf(const Entries& entries, const std::string& separator, ToText toText) {
  std::string all;
  for (const auto& entry : entries) all += (all.empty() ? "" : separator) + toText(entry);
  return all;
}

// Keys and values, behind commas or on lines of their own.
class Keys {
 public:
  explicit Keys(std::string separator) : separator_(std::move(separator)) {}

  void add(const std::string& key, const std::string& toml) {
    text_ += (text_.empty() ? "" : separator_) + key + "=" + toml;
  }
  void addText(const std::string& key, const std::string& text) {
    if (!text.empty()) add(key, quoted(text));
  }
  void addTrue(const std::string& key, bool truth) {
    if (truth) add(key, "true");
  }
  void addTexts(const std::string& key, const std::vector<std::string>& texts) {
    if (!texts.empty()) add(key, "[" + listOf(texts, ",", quoted) + "]");
  }
  const std::string& text() const { return text_; }

 private:
  std::string separator_;
  std::string text_;
};

class Writer {
 public:
  explicit Writer(Amount amount) : amount_(amount) {}

  std::string write(const Description& description) const {
    return listText("fields", description.fields) + listText("settings", description.settings) +
           topicsText(description.topics) + serviceText(description) +
           listOf(description.objects, "", [&](const Object& object) { return objectText(object); });
  }

 private:
  bool hasSentences() const { return amount_ == Amount::kAll; }
  bool hasAll() const { return amount_ != Amount::kNames; }

  std::string fieldText(const Field& field) const {
    Keys keys(",");
    keys.addText("name", field.name);
    keys.addText("field", fieldIdText(field.id));
    if (hasSentences()) keys.addText("doc", field.doc);
    keys.addTrue("secret", field.isSecret);
    if (!field.values.empty())
      keys.add("values",
               "{" + listOf(field.values, ",", [](const Value& value) { return valueText(value); }) + "}");
    if (hasAll()) addBounds(keys, field);
    return "{" + keys.text() + "}";
  }

  static void addBounds(Keys& keys, const Field& field) {
    keys.addText("unit", field.unit);
    if (field.min) keys.add("min", std::to_string(*field.min));
    if (field.max) keys.add("max", std::to_string(*field.max));
    keys.addTrue("required", field.isRequired);
    keys.addText("since", field.since);
    keys.addText("deprecated", field.deprecated);
    keys.addText("default", field.initial);
  }

  static std::string valueText(const Value& value) {
    return (isName(value.word) ? value.word : quoted(value.word)) + "=" + std::to_string(value.number);
  }

  std::string listText(const std::string& key, const std::vector<Field>& fields) const {
    if (fields.empty()) return {};
    return key + "=[" + listOf(fields, ",\n", [&](const Field& field) { return fieldText(field); }) + "]\n";
  }

  std::string topicsText(const std::vector<Topic>& topics) const {
    if (topics.empty()) return {};
    const auto toText = [&](const Topic& topic) {
      Keys keys(",");
      keys.addText("name", topic.name);
      keys.add("number", std::to_string(topic.number));
      if (hasSentences()) keys.addText("doc", topic.doc);
      return "{" + keys.text() + "}";
    };
    return "topics=[" + listOf(topics, ",", toText) + "]\n";
  }

  std::string serviceText(const Description& description) const {
    Keys keys("\n");
    keys.addText("name", description.name);
    if (description.id) keys.add("id", std::to_string(*description.id));
    if (hasSentences()) keys.addText("title", description.title);
    keys.addText("version", description.version);
    if (hasSentences()) keys.addText("doc", description.doc);
    return "[service]\n" + keys.text() + "\n";
  }

  std::string objectText(const Object& object) const {
    Keys keys("\n");
    keys.addText("name", object.name);
    if (object.handler) keys.add("handler", std::to_string(*object.handler));
    keys.addText("key", object.key);
    if (hasSentences()) keys.addText("doc", object.doc);
    if (hasAll()) keys.addText("store", object.store);
    if (hasAll()) keys.addTrue("undo", object.isUndone);
    keys.addTexts("fields", object.fields);
    if (!object.commands.empty())
      keys.add("commands",
               "[" + listOf(object.commands, ",", [&](const Command& c) { return commandText(c); }) + "]");
    return "[[objects]]\n" + keys.text() + "\n";
  }

  std::string commandText(const Command& command) const {
    Keys keys(",");
    keys.addText("name", command.name);
    if (!command.isStandard) keys.add("code", std::to_string(command.code));
    keys.addText("right", command.right);
    if (hasSentences()) keys.addText("doc", command.doc);
    if (!hasAll()) return "{" + keys.text() + "}";
    keys.addTexts("takes", command.takes);
    keys.addTexts("gives", command.gives);
    keys.addTexts("errors", command.errors);
    keys.addText("since", command.since);
    keys.addText("deprecated", command.deprecated);
    return "{" + keys.text() + "}";
  }

  Amount amount_;
};

}  // namespace

std::string compactOf(const Description& description) {
  for (const Amount amount : {Amount::kAll, Amount::kWithoutSentences, Amount::kNames}) {
    std::string text = Writer(amount).write(description);
    if (text.size() <= kMostCompactBytes) return text;
  }
  return {};
}

}  // namespace describe
