// A service marks its first start by an empty file with the name of its program, in a folder that every user may write.
// A marker of another user counts for nothing, but while it has the name, the service cannot make one of its own and
// takes each start for its first.  So the loader removes such markers before it starts anything.
//
// K1  nothing is opened or followed: a name is looked at, and it is the name that is removed
// K2  services that share a name share the users who may have made its marker
//
// Held by LoaderMarkers.ALinkIsRemovedAndNotWhereItLeads and LoaderMarkers.ServicesOfOneProgramShareItsMarker.

#include "life/markers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <string_view>

#include "services/common/descriptor.h"

namespace loader {
namespace {

constexpr std::size_t kCommandBytes = 79;  // of its command line that a process looks at for its name

using Owners = std::map<std::string, std::set<uid_t>>;  // who may have made the marker of that name

// The name that a process started by this command gives to its marker.
std::string markerNameOf(const std::string& command) {
  const std::string_view seen = std::string_view(command).substr(0, kCommandBytes);
  return std::string(seen.substr(seen.rfind('/') + 1));
}

// The names have no slash: one with a slash would be that of a file elsewhere.
bool isName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

Owners ownersOf(const Configuration& configuration) {
  Owners owners;
  for (const ServiceConfiguration& service : configuration.services) {
    const uid_t user = service.userId();
    const std::string program =
        service.command.empty() ? service.name : markerNameOf(service.command.front());
    for (const std::string& name : {service.name, program})
      if (isName(name)) owners[name].insert({0, ::geteuid(), user});  // K2
  }
  return owners;
}

}  // namespace

void removeStrangeMarkers(const Configuration& configuration, const std::string& folder, Log& log) {
  const common::Descriptor opened(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!opened.isOpen()) return;
  for (const auto& [name, owners] : ownersOf(configuration)) {
    struct stat marker {};
    if (::fstatat(opened.get(), name.c_str(), &marker, AT_SYMLINK_NOFOLLOW) != 0) continue;  // K1
    if (owners.contains(marker.st_uid)) continue;
    const int how = S_ISDIR(marker.st_mode) ? AT_REMOVEDIR : 0;
    const bool isRemoved = ::unlinkat(opened.get(), name.c_str(), how) == 0;
    const std::string outcome =
        isRemoved ? "removed" : std::string("cannot be removed: ") + std::strerror(errno);
    std::string line = folder;
    line.append("/").append(name).append(": is of another user (").append(std::to_string(marker.st_uid));
    log.line(line.append("); ").append(outcome));
  }
}

}  // namespace loader
