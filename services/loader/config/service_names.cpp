// The description is read once, when a name is met for the first time.

#include "config/service_names.h"

#include <algorithm>
#include <filesystem>

#include "kl/utilities.h"
#include "services/common/data_file.h"
#include "services/describe/reader.h"

namespace loader {
namespace {

using describe::Field;

const Field* findIn(const std::vector<Field>& fields, const std::string& name) {
  const auto found =
      std::find_if(fields.begin(), fields.end(), [&](const Field& field) { return field.name == name; });
  return found == fields.end() ? nullptr : &*found;
}

std::vector<std::string> namesOf(const std::vector<Field>& fields) {
  std::vector<std::string> names;
  for (const Field& field : fields) names.push_back(field.name);
  return names;
}

std::string fileOf(const std::string& folder, const std::string& service) {
  return (std::filesystem::path(folder) / (service + ".toml")).string();
}

}  // namespace

std::string installedDescriptions() {
  return common::findData(kl::underRoot(KL_FIELDS), KL_FIELDS_FROM_PROGRAM, KL_FIELDS);
}

const describe::Field* ServiceNames::findSetting(const std::string& name) {
  return description() == nullptr ? nullptr : findIn(description()->settings, name);
}

const describe::Field* ServiceNames::findField(const std::string& name) {
  return description() == nullptr ? nullptr : findIn(description()->fields, name);
}

std::vector<unsigned int> ServiceNames::secretFields() {
  std::vector<unsigned int> ids;
  if (description() == nullptr) return ids;
  for (const std::vector<Field>* fields : {&description()->fields, &description()->settings})
    for (const Field& field : *fields)
      if (field.isSecret) ids.push_back(field.id);
  return ids;
}

std::vector<unsigned int> ServiceNames::findCommands(const std::string& name) {
  std::vector<unsigned int> codes;
  if (description() == nullptr) return codes;
  for (const describe::Object& object : description()->objects)
    for (const describe::Command& command : object.commands)
      if (command.name == name && std::find(codes.begin(), codes.end(), command.code) == codes.end())
        codes.push_back(command.code);
  return codes;
}

std::string ServiceNames::settingsThereAre() {
  return thereAre("settings", description() ? namesOf(description()->settings) : std::vector<std::string>());
}

std::string ServiceNames::fieldsThereAre() {
  return thereAre("fields", description() ? namesOf(description()->fields) : std::vector<std::string>());
}

std::string ServiceNames::commandsThereAre() {
  std::vector<std::string> names;
  if (description() != nullptr) {
    for (const describe::Object& object : description()->objects)
      for (const describe::Command& command : object.commands)
        if (!command.isStandard && std::find(names.begin(), names.end(), command.name) == names.end())
          names.push_back(command.name);
  }
  return thereAre("commands", names);
}

std::string ServiceNames::thereAre(const std::string& what, const std::vector<std::string>& names) {
  const std::string file = fileOf(folder_, service_);
  if (description() == nullptr) return "names are those of " + file + ", which cannot be read";
  std::string all;
  for (const std::string& name : names) all += (all.empty() ? " " : ", ") + name;
  return file + " has " + (all.empty() ? "no " + what : "the " + what + all);
}

const describe::Description* ServiceNames::description() {
  if (!wasRead_ && mayHaveNames() && service_.find('/') == std::string::npos) {
    const std::string file = fileOf(folder_, service_);
    std::error_code ignored;
    common::Mistakes mistakes;
    if (std::filesystem::is_regular_file(file, ignored))
      description_ = describe::readFile(file, describe::OtherKeys::kIgnored, mistakes);
    if (!mistakes.empty()) description_.reset();
    mistakes_->insert(mistakes_->end(), mistakes.begin(), mistakes.end());
  }
  wasRead_ = true;
  return description_ ? &*description_ : nullptr;
}

}  // namespace loader
