#pragma once
// service_names.h: what a service calls its settings and commands, from its installed description.

#include <optional>
#include <string>
#include <vector>

#include "services/common/configuration_file.h"
#include "services/describe/description.h"

namespace loader {

// The folder of the descriptions: under the root of the system, beside the program (in the build tree as on an installed
// system), or of the prefix.
std::string installedDescriptions();

// Errors:    a description that cannot be read has no names; its mistakes go to the list that was given.
// Ownership: borrows the list.
// Threads:   belongs to one thread.
// Cost:      the file is read when the first name is looked up; a configuration with numbers alone reads none.
class ServiceNames {
 public:
  // Nothing has a name.
  ServiceNames() = default;
  // The names of FOLDER/SERVICE.toml.
  ServiceNames(const std::string& folder, const std::string& service, common::Mistakes& mistakes)
      : folder_(folder), service_(service), mistakes_(&mistakes) {}

  // Null where there is none.
  const describe::Field* findSetting(const std::string& name);
  const describe::Field* findField(const std::string& name);

  // The ids of its fields and settings that are secret.
  std::vector<unsigned int> secretFields();

  // The numbers of the commands of this name: one, or several where handlers have given it to different ones.
  std::vector<unsigned int> findCommands(const std::string& name);

  // False where no file could have names.
  bool mayHaveNames() const { return !folder_.empty() && !service_.empty(); }

  // For somebody who wrote an unknown name: the names there are, or that there is no description.
  std::string settingsThereAre();
  std::string fieldsThereAre();
  std::string commandsThereAre();

 private:
  const describe::Description* description();
  std::string thereAre(const std::string& what, const std::vector<std::string>& names);

  std::string folder_;
  std::string service_;
  common::Mistakes* mistakes_ = nullptr;
  bool wasRead_ = false;
  std::optional<describe::Description> description_;
};

}  // namespace loader
