// Text from anywhere is read as a description, as that of a file and as what a process says of itself.
//
//   - it is accepted or its mistakes are named, each in a line of the file
//   - what is accepted and checked can be carried: it reads back as the same, as far as there is room
//   - beside an installed description it adds names only

#include <algorithm>
#include <set>

#include "fuzz/input.h"
#include "services/describe/check.h"
#include "services/describe/compact.h"
#include "services/describe/json.h"
#include "services/describe/reader.h"
#include "services/describe/told.h"

namespace {

using common::Mistakes;
using describe::Description;
using fuzz::require;

const std::string kFile = "service.toml";
const std::string kInstalled =
    "fields = [{ name = \"pin\", field = \"string:1\", secret = true }]\n"
    "[[objects]]\nname = \"door\"\nfields = [\"pin\"]\ncommands = [{ name = \"open\", code = 7, right = "
    "\"control\" }]\n";

// Without a mistake, or none.
bool isRight(const std::string& text, Description& description) {
  Mistakes mistakes;
  description = describe::read(text, kFile, describe::OtherKeys::kRefused, mistakes);
  if (mistakes.empty()) describe::check(description, kFile, mistakes);
  const auto lines = static_cast<unsigned int>(1 + std::count(text.begin(), text.end(), '\n'));
  for (const common::Mistake& mistake : mistakes) {
    require(mistake.file == kFile && mistake.line <= lines && !mistake.text.empty(), "a mistake in a line");
  }
  return mistakes.empty();
}

void checkCarried(const Description& description) {
  const std::string text = describe::compactOf(description);
  if (text.empty()) return;
  Mistakes mistakes;
  const Description again = describe::read(text, kFile, describe::OtherKeys::kRefused, mistakes);
  require(mistakes.empty(), "what is carried is a description");
  require(describe::differencesOf(description, again).empty(), "it names the same");
  require(text.size() <= describe::kMostCompactBytes, "it is short");
}

void checkTold(const Description& told) {
  Mistakes mistakes;
  const Description installed = describe::read(kInstalled, kFile, describe::OtherKeys::kRefused, mistakes);
  const Description all = describe::completed(installed, told);
  (void)describe::differencesOf(installed, told);
  require(all.fields.front().name == "pin" && all.fields.front().isSecret, "what is secret stays so");
  require(all.objects.front().commands.front().right == "control", "a right stays");
  std::set<unsigned int> ids;
  for (const describe::Field& field : all.fields) {
    require(describe::isName(field.name) && ids.insert(field.id).second, "names, and one for each field");
  }
  for (const describe::Object& object : all.objects) require(describe::isName(object.name), "a name");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + std::min<std::size_t>(size, 8192));
  Description description;
  if (isRight(text, description)) checkCarried(description);
  Mistakes mistakes;
  const Description told = describe::read(text, kFile, describe::OtherKeys::kIgnored, mistakes);
  (void)describe::jsonOf(told);
  checkTold(told);
  return 0;
}
