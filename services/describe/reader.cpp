// A description is read key by key.  A field that is written where it is used (in an object, in what a command takes or
// gives) becomes one of the description's fields, and the place keeps its name: there is one list of fields, whose
// order is that of the file.

#include "services/describe/reader.h"

#include <algorithm>
#include <filesystem>
#include <limits>

#include "services/common/section.h"
#include "services/describe/field_id.h"
#include "services/describe/words.h"

namespace describe {
namespace {

using common::Mistakes;
using common::Section;

constexpr long long kMostNumber = std::numeric_limits<unsigned int>::max();
constexpr long long kMostBound = std::numeric_limits<long long>::max();
constexpr unsigned int kMostHandler = 0xffff;
constexpr unsigned int kMostTopic = 0xffff;
constexpr unsigned int kMostCommand = 0x00ffffff;

class Reader {
 public:
  Reader(const std::string& file, OtherKeys otherKeys, Mistakes& mistakes)
      : file_(file), otherKeys_(otherKeys), mistakes_(mistakes) {}

  Description read(const toml::table& root);

 private:
  using ReadEntry = void (Reader::*)(const toml::node& entry);

  void readService(Section service);
  void readList(Section& section, const std::string& key, const std::string& example, ReadEntry readEntry);
  void readFieldEntry(const toml::node& node);
  void readSetting(const toml::node& node);
  void readObject(const toml::node& node);
  void readTopic(const toml::node& node);
  void readReserved(const toml::node& node);

  std::optional<Field> readField(const toml::node& node, bool isSetting = false);
  std::string readDefault(Section& section);
  std::optional<unsigned int> readId(const toml::table& entry, Section& section);
  std::optional<unsigned int> readWrittenId(const toml::table& entry, const std::string& field);
  std::optional<unsigned long long> readBound(Section& section, const std::string& key);
  std::string readDeprecated(Section& section);
  void readValues(Field& field, const toml::node& node);
  std::vector<std::string> readFieldNames(Section& section, const std::string& key);
  void readCommands(Section& section, Object& object);
  void readCommand(const toml::node& node, Object& object);
  void readCommandTable(Section section, Command& command);
  std::optional<std::string> readName(const toml::table& entry, Section& section);
  std::optional<Reserved> parseReserved(const std::string& text);

  Section sectionOf(const toml::table& table, const std::string& name) {
    return Section(table, name, file_, mistakes_);
  }
  void finish(Section& section) {
    if (otherKeys_ == OtherKeys::kRefused) section.refuseOthers();
  }
  void mistake(const toml::source_region& where, const std::string& text) {
    mistakes_.push_back({file_, where.begin.line, text});
  }

  const std::string& file_;
  OtherKeys otherKeys_;
  Mistakes& mistakes_;
  Description result_;
};

// The description that a file without a word in it stands for.
Description unnamed(const std::string& file) {
  Description nothing;
  nothing.name = nothing.nameSpace = std::filesystem::path(file).stem().string();
  return nothing;
}

std::vector<std::string> wordsOf(const std::string& text) {
  std::vector<std::string> words;
  for (std::size_t from = 0; from <= text.size();) {
    const std::size_t blank = std::min(text.find(' ', from), text.size());
    words.push_back(text.substr(from, blank - from));
    from = blank + 1;
  }
  return words;
}

std::string textOf(const toml::node& node) {
  if (const auto text = node.value_exact<std::string>()) return *text;
  if (const auto number = node.value_exact<std::int64_t>()) return std::to_string(*number);
  if (const auto truth = node.value_exact<bool>()) return *truth ? "true" : "false";
  return {};
}

// --- The parts of a file, in the order of the format's description.

Description Reader::read(const toml::table& root) {
  result_ = unnamed(file_);
  Section whole = sectionOf(root, "");
  readService(whole.table("service"));
  readList(whole, "fields", "fields = [ ... ]", &Reader::readFieldEntry);
  readList(whole, "settings", "settings = [ ... ]", &Reader::readSetting);
  readList(whole, "objects", "[[objects]]", &Reader::readObject);
  readList(whole, "topics", "topics = [ ... ]", &Reader::readTopic);
  readList(whole, "reserved", "reserved = [ ... ]", &Reader::readReserved);
  finish(whole);
  return std::move(result_);
}

void Reader::readService(Section service) {
  result_.name = service.text("name", result_.name);
  if (service.find("id") != nullptr) result_.id = service.number("id", 0u, 1, kMostNumber);
  result_.title = service.text("title", "");
  result_.version = service.text("version", "");
  result_.doc = service.text("doc", "");
  result_.nameSpace = service.text("namespace", result_.name);
  finish(service);
}

void Reader::readList(Section& section, const std::string& key, const std::string& example,
                      ReadEntry readEntry) {
  const toml::node* node = section.find(key);
  if (node == nullptr) return;
  const toml::array* list = node->as_array();
  if (list == nullptr) return mistake(node->source(), "expected a list '" + example + "'");
  for (const toml::node& entry : *list) (this->*readEntry)(entry);
}

void Reader::readFieldEntry(const toml::node& node) {
  if (auto field = readField(node)) result_.fields.push_back(std::move(*field));
}

void Reader::readSetting(const toml::node& node) {
  if (auto setting = readField(node, true)) result_.settings.push_back(std::move(*setting));
}

void Reader::readObject(const toml::node& node) {
  const toml::table* entry = node.as_table();
  if (entry == nullptr) return mistake(node.source(), "expected { name = \"...\", fields = [ ... ] }");
  Section section = sectionOf(*entry, "objects");
  Object object;
  object.line = node.source().begin.line;
  const auto name = readName(*entry, section);
  if (!name) return;
  object.name = *name;
  if (section.find("handler") != nullptr) object.handler = section.number("handler", 0u, 0, kMostHandler);
  object.key = section.text("key", "");
  object.doc = section.text("doc", "");
  object.store = section.text("store", "");
  object.isUndone = section.boolean("undo", false);
  object.fields = readFieldNames(section, "fields");
  readCommands(section, object);
  finish(section);
  result_.objects.push_back(std::move(object));
}

void Reader::readTopic(const toml::node& node) {
  const toml::table* entry = node.as_table();
  if (entry == nullptr) return mistake(node.source(), "expected { name = \"...\", number = NUMBER }");
  Section section = sectionOf(*entry, "topics");
  const auto name = readName(*entry, section);
  if (section.find("number") == nullptr) mistake(node.source(), "expected number = 1 to 65535");
  const unsigned int number = section.number("number", 0u, 1, kMostTopic);
  const std::string doc = section.text("doc", "");
  finish(section);
  if (name && number != 0) result_.topics.push_back({*name, number, doc, node.source().begin.line});
}

void Reader::readReserved(const toml::node& node) {
  const std::string text = node.value_exact<std::string>().value_or("");
  if (auto reserved = parseReserved(text)) {
    reserved->line = node.source().begin.line;
    result_.reserved.push_back(std::move(*reserved));
    return;
  }
  mistake(node.source(),
          "expected \"TYPE:NUMBER\", \"setting TYPE:NUMBER\", \"command OBJECT NUMBER\", \"object HANDLER\", "
          "\"topic NUMBER\" or \"value FIELD NUMBER\", not \"" +
              text + "\"");
}

std::optional<Reserved> Reader::parseReserved(const std::string& text) {
  const std::vector<std::string> words = wordsOf(text);
  const auto made = [](Reserved::Kind kind, std::optional<unsigned long long> number,
                       std::string scope = {}) {
    return number ? std::optional(Reserved{kind, std::move(scope), static_cast<unsigned int>(*number)})
                  : std::nullopt;
  };
  using enum Reserved::Kind;
  if (words.size() == 1) return made(kField, parseFieldId(words[0]));
  if (words.size() == 2 && words[0] == "setting") return made(kSetting, parseFieldId(words[1]));
  if (words.size() == 2 && words[0] == "object") return made(kObject, parseNumber(words[1], kMostHandler));
  if (words.size() == 2 && words[0] == "topic") return made(kTopic, parseNumber(words[1], kMostTopic));
  if (words.size() != 3) return {};
  if (words[0] == "command") return made(kCommand, parseNumber(words[2], kMostCommand), words[1]);
  if (words[0] == "value") return made(kValue, parseNumber(words[2], kMostNumber), words[1]);
  return {};
}

// --- Fields.

std::optional<Field> Reader::readField(const toml::node& node, bool isSetting) {
  const toml::table* entry = node.as_table();
  if (entry == nullptr) {
    mistake(node.source(), "expected { name = \"...\", field = \"TYPE:NUMBER\" }");
    return {};
  }
  Section section = sectionOf(*entry, "fields");
  const auto name = readName(*entry, section);
  const auto id = name ? readId(*entry, section) : std::nullopt;
  if (!id) return {};
  Field field;
  field.name = *name;
  field.id = *id;
  field.line = node.source().begin.line;
  field.doc = section.text("doc", "");
  field.unit = section.text("unit", "");
  field.since = section.text("since", "");
  field.deprecated = readDeprecated(section);
  field.isRequired = section.boolean("required", false);
  field.isSecret = section.boolean("secret", false);
  field.min = readBound(section, "min");
  field.max = readBound(section, "max");
  if (const toml::node* values = section.find("values")) readValues(field, *values);
  if (isSetting) field.initial = readDefault(section);
  finish(section);
  return field;
}

std::optional<std::string> Reader::readName(const toml::table& entry, Section& section) {
  const toml::node* node = section.find("name");
  const auto text = node != nullptr ? node->value<std::string>() : std::nullopt;
  if (text && !text->empty()) return *text;
  mistake(entry.source(), "expected name = \"...\"");
  return {};
}

// Either field = "u32:5", or type = "u32" and id = 5.
std::optional<unsigned int> Reader::readId(const toml::table& entry, Section& section) {
  const toml::node* field = section.find("field");
  const toml::node* type = section.find("type");
  const toml::node* id = section.find("id");
  if (field == nullptr && type != nullptr && id != nullptr) {
    return readWrittenId(entry, textOf(*type) + ":" + textOf(*id));
  }
  const auto text = field != nullptr ? field->value<std::string>() : std::nullopt;
  if (type != nullptr || id != nullptr) {
    mistake(entry.source(), "expected either field = \"TYPE:NUMBER\" or type and id");
  } else if (!text || text->empty()) {
    mistake(entry.source(), "expected field = \"...\"");
  } else {
    return readWrittenId(entry, *text);
  }
  return {};
}

std::optional<unsigned int> Reader::readWrittenId(const toml::table& entry, const std::string& field) {
  const auto id = parseFieldId(field);
  if (!id) {
    mistake(entry.source(), "expected a field like \"u32:5\" or \"string[]:std.9\", not \"" + field + "\"");
  }
  return id;
}

std::optional<unsigned long long> Reader::readBound(Section& section, const std::string& key) {
  if (section.find(key) == nullptr) return {};
  return section.number(key, 0ull, 0, kMostBound);
}

std::string Reader::readDefault(Section& section) {
  const toml::node* node = section.find("default");
  if (node == nullptr) return {};
  std::string text = textOf(*node);
  if (text.empty()) section.expected(*node, "default", "a text, a number, true or false");
  return text;
}

// A text, or true where there is nothing to use instead.
std::string Reader::readDeprecated(Section& section) {
  const toml::node* node = section.find("deprecated");
  if (node == nullptr) return {};
  if (node->is_boolean()) return section.boolean("deprecated", false) ? "no longer used" : "";
  return section.text("deprecated", "");
}

void Reader::readValues(Field& field, const toml::node& node) {
  const toml::table* values = node.as_table();
  if (values == nullptr || elementType(field.id) != kU32) {
    return mistake(node.source(), "expected values = { word = number, ... } of a u32 field");
  }
  for (const auto& [word, number] : *values) {
    const auto value = number.value<std::int64_t>();
    if (!value || *value < 0 || *value > kMostNumber) {
      mistake(number.source(), "expected a number from 0 to 4294967295");
    } else {
      field.values.push_back({std::string(word.str()), static_cast<unsigned int>(*value)});
    }
  }
  std::stable_sort(field.values.begin(), field.values.end(),
                   [](const Value& a, const Value& b) { return a.number < b.number; });
}

// Names of fields, and fields that are written here.
std::vector<std::string> Reader::readFieldNames(Section& section, const std::string& key) {
  std::vector<std::string> names;
  const toml::node* node = section.find(key);
  if (node == nullptr) return names;
  const toml::array* list = node->as_array();
  if (list == nullptr) section.expected(*node, key, "a list of fields");
  for (std::size_t i = 0; list != nullptr && i < list->size(); ++i) {
    const toml::node& entry = *list->get(i);
    if (const auto name = entry.value_exact<std::string>()) {
      names.push_back(*name);
    } else if (auto field = readField(entry)) {
      names.push_back(field->name);
      result_.fields.push_back(std::move(*field));
    }
  }
  return names;
}

// --- Commands.

void Reader::readCommands(Section& section, Object& object) {
  const toml::node* node = section.find("commands");
  if (node == nullptr) return;
  const toml::array* list = node->as_array();
  if (list == nullptr) return section.expected(*node, "commands", "a list of commands");
  for (const toml::node& entry : *list) readCommand(entry, object);
}

// The name of a standard command, or a table.
void Reader::readCommand(const toml::node& node, Object& object) {
  const toml::table* entry = node.as_table();
  const toml::table nothing;
  Section section = sectionOf(entry != nullptr ? *entry : nothing, "commands");
  auto name = node.value_exact<std::string>();
  if (!name && entry != nullptr) name = readName(*entry, section);
  else if (!name) mistake(node.source(), "expected the name of a command or { name = \"...\", ... }");
  if (!name) return;
  Command command;
  command.name = *name;
  command.line = node.source().begin.line;
  if (const StandardCommand* standard = findStandardCommand(*name)) {
    command.name = shortForm(standard->name);
    command.code = standard->code;
    command.right = standard->right;
    command.isStandard = true;
  } else if (entry == nullptr) {
    return mistake(node.source(), "expected a standard command like \"getobj\", not \"" + *name + "\"");
  }
  if (entry != nullptr) readCommandTable(std::move(section), command);
  object.commands.push_back(std::move(command));
}

void Reader::readCommandTable(Section section, Command& command) {
  if (command.isStandard && section.find("code") != nullptr) {
    section.mistake("code", "a standard command has its own");
  }
  if (!command.isStandard && section.find("code") == nullptr) section.expected("code", "a number");
  if (!command.isStandard) command.code = section.number("code", 0u, 1, kMostCommand);
  command.right = section.text("right", command.right);
  if (!findRight(command.right)) {
    section.expected("right", "\"none\", \"read\", \"change\", \"control\", \"contents\" or \"nobody\"");
  }
  command.doc = section.text("doc", "");
  command.since = section.text("since", "");
  command.deprecated = readDeprecated(section);
  command.takes = readFieldNames(section, "takes");
  command.gives = readFieldNames(section, "gives");
  command.errors = section.texts("errors", "a list of errors");
  for (const std::string& error : command.errors) {
    if (!findError(error)) section.mistake("errors", "there is no error \"" + error + "\"");
  }
  finish(section);
}

}  // namespace

const Field* Description::findField(const std::string& fieldName) const {
  for (const Field& field : fields)
    if (field.name == fieldName) return &field;
  return nullptr;
}

Description read(const std::string& text, const std::string& file, OtherKeys otherKeys, Mistakes& mistakes) {
  const auto root = common::parseToml(text, file, mistakes);
  return root ? Reader(file, otherKeys, mistakes).read(*root) : unnamed(file);
}

Description readFile(const std::string& file, OtherKeys otherKeys, Mistakes& mistakes) {
  const auto text = common::readFile(file, mistakes);
  return text ? read(*text, file, otherKeys, mistakes) : unnamed(file);
}

}  // namespace describe
