// A pair is drawn again until neither version has a mistake, as klgen would refuse it.

#include "tests/tools/klgen/edits/edits.h"

#include <algorithm>
#include <functional>
#include <iterator>

#include "services/describe/check.h"
#include "services/describe/words.h"
#include "tools/klgen/header.h"

namespace edits {
namespace {

using describe::Command;
using describe::Description;
using describe::Field;
using describe::Object;
using describe::Reserved;
using Names = std::vector<std::string>;

constexpr unsigned int kTypeBits[] = {0x00000000, 0x08000000, 0x08000000, 0x08000000, 0x10000000,
                                      0x20000000, 0x30000000, 0x88000000, 0xa0000000};
constexpr unsigned int kTypeless = 0x00ffffff;
constexpr unsigned int kU32 = 0x08000000;
constexpr const char* kRights[] = {"none", "read", "change", "control"};
constexpr const char* kUnits[] = {"", "s", "ms"};

class Editor {
 public:
  explicit Editor(Random& random) : random_(random) {}

  Description made();
  void edit(Description& description);

 private:
  unsigned int below(unsigned int n) { return static_cast<unsigned int>(random_() % n); }
  bool oneIn(unsigned int n) { return below(n) == 0; }
  std::string fresh(const std::string& kind) { return kind + std::to_string(++names_); }
  template <class Things>
  auto& any(Things& things) {
    return things[below(static_cast<unsigned int>(std::size(things)))];
  }
  template <class Things>
  void removeAt(Things& things, std::size_t at) {
    things.erase(things.begin() + static_cast<std::ptrdiff_t>(at));
  }
  template <class Things, class Thing>
  void insertSomewhere(Things& things, Thing thing) {
    const unsigned int at = below(static_cast<unsigned int>(things.size()) + 1);
    things.insert(things.begin() + static_cast<std::ptrdiff_t>(at), std::move(thing));
  }

  Field madeField(const std::string& kind, unsigned int number);
  Command madeCommand(const Description& d);
  Object madeObject(const Description& d, std::optional<unsigned int> handler);
  Names someFields(const Description& d);

  void editField(Description& d);
  void editLists(Description& d);
  void editValues(Description& d);
  void editObject(Description& d);
  void editCommand(Description& d);
  void editSettings(Description& d);
  void editTopics(Description& d);
  void editService(Description& d);
  void editReserved(Description& d);
  void editSentences(Description& d);

  void removeField(Description& d, std::size_t at);
  void renameField(Description& d, Field& field);
  void changeBounds(Field& field);
  void reservePerhaps(Description& d, Reserved::Kind kind, unsigned int number,
                      const std::string& scope = {}) {
    if (!oneIn(3)) d.reserved.push_back({kind, scope, number});
  }

  Random& random_;
  unsigned int names_ = 0;
};

// Calls the function for each list of names of fields.
void forEachList(Description& d, const std::function<void(Names&)>& function) {
  for (Object& object : d.objects) {
    function(object.fields);
    for (Command& command : object.commands) {
      function(command.takes);
      function(command.gives);
    }
  }
}

bool has(const Names& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

bool mayHaveBounds(unsigned int id) { return (id & 0xf8000000) != 0; }

Field Editor::madeField(const std::string& kind, unsigned int number) {
  Field field;
  field.name = fresh(kind);
  field.id = any(kTypeBits) | number;
  field.isRequired = kind == "f" && oneIn(3);
  if (oneIn(3) && mayHaveBounds(field.id)) field.min = 2, field.max = 8;
  if ((field.id & 0xf8000000) == kU32) {
    field.unit = any(kUnits);
    if (oneIn(2)) field.values = {{fresh("v"), 1}, {fresh("v"), 2}, {fresh("v"), 5}};
    if (kind == "s" && oneIn(2)) field.initial = "5";
  }
  return field;
}

Names Editor::someFields(const Description& d) {
  Names names;
  for (const Field& field : d.fields)
    if (oneIn(2)) names.push_back(field.name);
  return names;
}

Command Editor::madeCommand(const Description& d) {
  Command command;
  command.name = fresh("c");
  command.code = 0x60000 + below(40);
  command.right = any(kRights);
  command.takes = someFields(d);
  command.gives = someFields(d);
  return command;
}

Object Editor::madeObject(const Description& d, std::optional<unsigned int> handler) {
  Object object;
  object.name = fresh("o");
  object.handler = handler;
  object.fields = someFields(d);
  if (!object.fields.empty() && oneIn(2)) object.key = any(object.fields);
  Command standard;
  standard.name = oneIn(2) ? "getobj" : "setobj";
  standard.code = describe::findStandardCommand(standard.name)->code;
  standard.right = "read";
  standard.isStandard = true;
  if (oneIn(2)) standard.takes = someFields(d);
  object.commands = {standard, madeCommand(d)};
  return object;
}

Description Editor::made() {
  Description d;
  d.name = d.nameSpace = "svc";
  if (!oneIn(4)) d.id = 300;
  for (unsigned int i = 0; i < 4 + below(4); ++i) d.fields.push_back(madeField("f", i + 1));
  for (unsigned int i = 0; i < 1 + below(3); ++i) d.settings.push_back(madeField("s", i + 1));
  d.objects.push_back(madeObject(d, {}));
  if (oneIn(2)) d.objects.push_back(madeObject(d, 1));
  for (unsigned int i = 0; i < below(3); ++i) d.topics.push_back({fresh("t"), 300 + i, ""});
  if (oneIn(3)) d.reserved.push_back({Reserved::Kind::kField, "", any(kTypeBits) | 20});
  if (oneIn(3)) d.reserved.push_back({Reserved::Kind::kTopic, "", 310});
  if (oneIn(3)) d.reserved.push_back({Reserved::Kind::kCommand, d.objects[0].name, 0x70000});
  if (oneIn(3)) d.reserved.push_back({Reserved::Kind::kSetting, "", kU32 | 20});
  if (oneIn(3)) d.reserved.push_back({Reserved::Kind::kObject, "", 9});
  for (const Field& field : d.fields)
    if (!field.values.empty() && oneIn(3)) d.reserved.push_back({Reserved::Kind::kValue, field.name, 9});
  return d;
}

void Editor::edit(Description& d) {
  using Step = void (Editor::*)(Description&);
  static constexpr Step kSteps[] = {&Editor::editField,    &Editor::editField,    &Editor::editLists,
                                    &Editor::editLists,    &Editor::editValues,   &Editor::editObject,
                                    &Editor::editCommand,  &Editor::editSettings, &Editor::editTopics,
                                    &Editor::editService,  &Editor::editReserved, &Editor::editSentences,
                                    &Editor::editSentences};
  (this->*any(kSteps))(d);
  for (Field& field : d.fields) {
    if ((field.id & 0xf8000000) == kU32) continue;
    field.values.clear();
    field.unit.clear();
  }
}

void Editor::editField(Description& d) {
  if (d.fields.empty() || oneIn(4)) return insertSomewhere(d.fields, madeField("f", 30 + below(20)));
  const std::size_t at = below(static_cast<unsigned int>(d.fields.size()));
  Field& field = d.fields[at];
  switch (below(8)) {
    case 0: return removeField(d, at);
    case 1: return renameField(d, field);
    case 2: field.id = (field.id & ~kTypeless) | (30 + below(20)); return;
    case 3: field.id = any(kTypeBits) | (field.id & kTypeless); return;
    case 4: field.isRequired = !field.isRequired; return;
    case 5:
      if ((field.id & 0xf8000000) == kU32) field.unit = any(kUnits);
      return;
    case 6: return std::swap(field.id, any(d.fields).id);
    default: return changeBounds(field);
  }
}

void Editor::removeField(Description& d, std::size_t at) {
  const Field field = d.fields[at];
  forEachList(d, [&](Names& names) { std::erase(names, field.name); });
  for (Object& object : d.objects)
    if (object.key == field.name) object.key.clear();
  removeAt(d.fields, at);
  reservePerhaps(d, Reserved::Kind::kField, field.id);
}

void Editor::renameField(Description& d, Field& field) {
  const std::string before = field.name;
  field.name = fresh("f");
  forEachList(d, [&](Names& names) { std::replace(names.begin(), names.end(), before, field.name); });
  for (Object& object : d.objects)
    if (object.key == before) object.key = field.name;
  for (Reserved& reserved : d.reserved)
    if (reserved.kind == Reserved::Kind::kValue && reserved.scope == before) reserved.scope = field.name;
}

void Editor::changeBounds(Field& field) {
  if (!mayHaveBounds(field.id)) return;
  field.min.reset();
  field.max.reset();
  if (oneIn(2)) field.min = 1 + below(3);
  if (oneIn(2)) field.max = 7 + below(3);
}

void Editor::editLists(Description& d) {
  std::vector<Names*> lists;
  forEachList(d, [&](Names& names) { lists.push_back(&names); });
  if (lists.empty() || d.fields.empty()) return;
  Names& list = *any(lists);
  const std::string& field = any(d.fields).name;
  switch (below(4)) {
    case 0: return std::shuffle(list.begin(), list.end(), random_);
    case 1:
      if (!list.empty()) removeAt(list, below(static_cast<unsigned int>(list.size())));
      return;
    default:
      if (!has(list, field)) insertSomewhere(list, field);
  }
}

void Editor::editValues(Description& d) {
  std::vector<Field*> fields;
  for (Field& field : d.fields)
    if ((field.id & 0xf8000000) == kU32) fields.push_back(&field);
  if (fields.empty()) return;
  Field& field = *any(fields);
  if (field.values.empty() || oneIn(3)) return field.values.push_back({fresh("v"), 6 + below(6)});
  const std::size_t at = below(static_cast<unsigned int>(field.values.size()));
  switch (below(3)) {
    case 0: field.values[at].word = fresh("v"); return;
    case 1: field.values[at].number = 1 + below(12); return;
    default:
      reservePerhaps(d, Reserved::Kind::kValue, field.values[at].number, field.name);
      removeAt(field.values, at);
  }
}

void Editor::editObject(Description& d) {
  if (d.objects.empty() || oneIn(3)) return d.objects.push_back(madeObject(d, 2 + below(10)));
  const std::size_t at = below(static_cast<unsigned int>(d.objects.size()));
  Object& object = d.objects[at];
  switch (below(4)) {
    case 0: object.handler = below(10); return;
    case 1: object.key = object.fields.empty() || oneIn(3) ? "" : any(object.fields); return;
    case 2:
      if (object.handler) reservePerhaps(d, Reserved::Kind::kObject, *object.handler);
      return removeAt(d.objects, at);
    default:
      for (Reserved& reserved : d.reserved)
        if (reserved.kind == Reserved::Kind::kCommand && reserved.scope == object.name)
          reserved.scope = "o" + std::to_string(names_ + 1);
      object.name = fresh("o");
  }
}

void Editor::editCommand(Description& d) {
  if (d.objects.empty()) return;
  Object& object = any(d.objects);
  if (object.commands.empty() || oneIn(3)) return object.commands.push_back(madeCommand(d));
  const std::size_t at = below(static_cast<unsigned int>(object.commands.size()));
  Command& command = object.commands[at];
  switch (below(4)) {
    case 0: command.right = any(kRights); return;
    case 1:
      if (!command.isStandard) command.code = 0x60000 + below(40);
      return;
    case 2:
      if (!command.isStandard) command.name = fresh("c");
      return;
    default:
      reservePerhaps(d, Reserved::Kind::kCommand, command.code, object.name);
      removeAt(object.commands, at);
  }
}

void Editor::editSettings(Description& d) {
  if (d.settings.empty() || oneIn(4)) return d.settings.push_back(madeField("s", 30 + below(20)));
  const std::size_t at = below(static_cast<unsigned int>(d.settings.size()));
  Field& setting = d.settings[at];
  switch (below(5)) {
    case 0: setting.name = fresh("s"); return;
    case 1: setting.id = (setting.id & ~kTypeless) | (30 + below(20)); return;
    case 2: setting.initial = oneIn(2) || (setting.id & 0xf8000000) != kU32 ? "" : "7"; return;
    case 3: return changeBounds(setting);
    default: reservePerhaps(d, Reserved::Kind::kSetting, setting.id); removeAt(d.settings, at);
  }
}

void Editor::editTopics(Description& d) {
  if (d.topics.empty() || oneIn(3)) return d.topics.push_back({fresh("t"), 320 + below(20), ""});
  const std::size_t at = below(static_cast<unsigned int>(d.topics.size()));
  switch (below(3)) {
    case 0: d.topics[at].name = fresh("t"); return;
    case 1: d.topics[at].number = 320 + below(20); return;
    default: reservePerhaps(d, Reserved::Kind::kTopic, d.topics[at].number); removeAt(d.topics, at);
  }
}

void Editor::editService(Description& d) {
  switch (below(4)) {
    case 0: d.id = 300 + below(2); return;
    case 1: d.id.reset(); return;
    case 2: d.name = fresh("n"); return;
    default: d.nameSpace = fresh("n");
  }
}

void Editor::editReserved(Description& d) {
  if (d.reserved.empty() || oneIn(3))
    return d.reserved.push_back({Reserved::Kind::kField, "", any(kTypeBits) | (60 + below(9))});
  removeAt(d.reserved, below(static_cast<unsigned int>(d.reserved.size())));
}

void Editor::editSentences(Description& d) {
  d.doc = fresh("what it is ");
  d.title = fresh("title ");
  d.version = std::to_string(++names_);
  for (Field& field : d.fields)
    if (oneIn(2)) field.doc = "a field", field.isSecret = oneIn(2), field.deprecated = oneIn(3) ? "no" : "";
  for (Object& object : d.objects)
    for (Command& command : object.commands) command.errors = {"busy"};
}

bool isRight(const Description& description) {
  common::Mistakes mistakes;
  describe::check(description, "f.toml", mistakes);
  if (mistakes.empty()) (void)klgen::headerOf(description, "f.toml", mistakes);
  return mistakes.empty();
}

}  // namespace

Pair randomPair(Random& random) {
  Editor editor(random);
  Pair pair;
  do pair.older = editor.made();
  while (!isRight(pair.older));
  do {
    pair.newer = pair.older;
    for (unsigned int i = 0; i < 1 + random() % 3; ++i) editor.edit(pair.newer);
  } while (!isRight(pair.newer));
  return pair;
}

}  // namespace edits
