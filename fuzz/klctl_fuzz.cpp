// Words of klctl's command line: fields, assignments, paths; and messages from anywhere, shown as JSON.
//
//   - a word is taken or refused with a sentence, never anything else
//   - a field id that was read is written as a word that reads as the same id
//   - what an assignment or a message says as JSON reads back as a message that says the same

#include "ask/path.h"
#include "fuzz/input.h"
#include "output/show.h"
#include "values/assignment.h"
#include "values/failure.h"
#include "values/field_id.h"
#include "values/json.h"

namespace {

using fuzz::require;

template <class Function>
bool isTaken(Function f) {
  try {
    f();
    return true;
  } catch (const klctl::Failure& failure) {
    require(failure.what()[0] != 0, "a refusal says why");
    return false;
  }
}

bool isDeeperThan(const klctl::Json& value, int depth) {
  if (!value.is_structured()) return false;
  if (depth == 0) return true;
  return std::any_of(value.begin(), value.end(),
                     [depth](const klctl::Json& inner) { return isDeeperThan(inner, depth - 1); });
}

void checkShown(const kl::message& m, const klctl::FieldNames& names) {
  const klctl::Json shown = klctl::toJson(m, names);
  require(!klctl::jsonText(shown).empty() && !klctl::jsonLine(shown).empty(), "JSON is written");
  // Below that depth nested messages are shown as the raw bytes that they are.
  if (isDeeperThan(shown, 60)) return;
  const kl::message again = klctl::messageFrom(shown, names);
  require(klctl::toJson(again, names) == shown, "what is shown reads back as the same");
}

void checkFieldWord(const std::string& word, const klctl::FieldNames& names) {
  if (const auto id = klctl::parseFieldId(word))
    require(klctl::parseFieldId(klctl::fieldIdText(*id)) == id, "an id's text reads as the id");
  if (const auto id = names.find(word))
    require(names.find(names.nameOf(*id)) == id, "a name reads as its id");
}

void checkAssignments(fuzz::Input& input, const klctl::FieldNames& names) {
  kl::message m;
  while (!input.isEmpty()) {
    const std::string word = input.text(input.u8());
    checkFieldWord(word.substr(0, word.find('=')), names);
    (void)isTaken([&] { klctl::assign(m, word, names); });
    (void)isTaken([&] { (void)klctl::parsePath(word); });
    (void)klctl::parseCommand(word);
  }
  checkShown(m, names);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const klctl::FieldNames names;
  fuzz::Input input(data, std::min<std::size_t>(size, 2048));
  if (input.upTo(3) == 0) checkShown(kl::message(input.rest()), names);
  else checkAssignments(input, names);
  return 0;
}
