// The names are those of the service's description, of which nothing else is read here.

#include "values/dictionary.h"

#include "services/describe/reader.h"
#include "values/failure.h"

namespace klctl {
namespace {

// The file may be newer than this program: keys that it does not know are none of its business.
void addNames(const std::filesystem::path& file, FieldNames& names) {
  common::Mistakes mistakes;
  const auto description = describe::readFile(file.string(), describe::OtherKeys::kIgnored, mistakes);
  if (!mistakes.empty()) throw usage(mistakes.front().describe());
  for (const describe::Field& field : description.fields) {
    names.add(field.name, field.id);
    for (const describe::Value& value : field.values) names.addValue(field.id, value.word, value.number);
  }
}

bool isPlainName(const std::string& service) {
  return !service.empty() && service.front() != '.' && service.find('/') == std::string::npos;
}

}  // namespace

std::filesystem::path dictionaryFolder() {
  std::error_code ignored;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", ignored);
  return (program.parent_path() / KLCTL_FIELDS_FROM_PROGRAM).lexically_normal();
}

FieldNames namesFor(const std::string& service, const std::filesystem::path& folder) {
  FieldNames names;
  const std::filesystem::path file = folder / (service + ".toml");
  std::error_code ignored;
  if (isPlainName(service) && std::filesystem::exists(file, ignored)) addNames(file, names);
  return names;
}

}  // namespace klctl
