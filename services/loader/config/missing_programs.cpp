// The search is that of execvp(3) behind a change of the folder.  A reload is not refused for it: a program may come before
// its service is started, and then it is found.

#include "config/missing_programs.h"

#include <sys/stat.h>

#include <sstream>

#include "config/environment.h"

namespace loader {
namespace {

constexpr mode_t kAnybodyExecutes = S_IXUSR | S_IXGRP | S_IXOTH;

bool isProgram(const std::string& file) {
  struct stat found {};
  return ::stat(file.c_str(), &found) == 0 && S_ISREG(found.st_mode) &&
         (found.st_mode & kAnybodyExecutes) != 0;
}

std::string from(const std::string& folder, const std::string& file) {
  return file.starts_with('/') || folder.empty() ? file : folder + "/" + file;
}

std::string searchPathOf(const ServiceConfiguration& service) { return environmentOf(service).at("PATH"); }

bool isThere(const ServiceConfiguration& service) {
  const std::string& program = service.command.front();
  if (program.find('/') != std::string::npos) return isProgram(from(service.folder, program));
  std::istringstream folders(searchPathOf(service));
  for (std::string folder; std::getline(folders, folder, ':');)
    if (isProgram(from(service.folder, (folder.empty() ? "." : folder) + "/" + program))) return true;
  return false;
}

}  // namespace

void addMissingPrograms(const Configuration& configuration, common::Mistakes& mistakes) {
  for (const ServiceConfiguration& service : configuration.services)
    if (!service.command.empty() && !isThere(service))
      mistakes.push_back({configuration.file, 0,
                          service.name + ": command: there is no program '" + service.command.front() + "'"});
}

}  // namespace loader
