#pragma once
// configuration.h: the configuration file, read and checked.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "config/access_list.h"
#include "config/commands.h"
#include "config/process_limits.h"
#include "quota/limits.h"
#include "services/common/command_line.h"

namespace loader {

// The number of a user whom the system does not know.
inline constexpr uid_t kUnknownUser = static_cast<uid_t>(-1);

// When the loader starts a service again that ended without an order.
enum class RestartRule : unsigned char {
  kAfterCrash,  // unless it ended with status 0
  kAlways,
  kNever,
};

struct ServiceConfiguration {
  unsigned int id = 0;
  std::string name;
  std::vector<std::string> command;  // empty: somebody else starts it
  std::string user;                  // who it runs as and who may claim its id; empty: the loader's own user
  uid_t uid = kUnknownUser;          // the number of `user`
  std::vector<gid_t> groups;         // of `user`, his primary one first
  std::string login;                 // the name of who it runs as
  std::string home = "/";            // and his folder
  std::string folder;                // its working directory; empty: the loader's own
  std::map<std::string, std::string> environment;  // beside what each service has
  std::optional<Rights> rights;  // of its own requests, in the place of what [rights] gives to its user
  unsigned int rightsLine = 0;
  std::vector<uid_t> speaksFor;           // the users whom its requests may name
  AccessList access;                      // who may do what with it; empty: what [rights] says
  std::optional<CommandRights> commands;  // what its commands need; none: it decides about each itself
  RestartRule restart = RestartRule::kAfterCrash;
  bool startsAtBoot = true;
  bool startsOnDemand = false;        // the first message for it starts it
  unsigned int startSeconds = 60;     // a process that does not register in that time has to end; 0: never
  unsigned int leaveIdleSeconds = 0;  // after so long without work it is asked to leave; 0: never
  unsigned int watchdogSeconds =
      0;  // one that could have run and does not answer for so long is ended; 0: none
  ProcessLimits limits;
  std::vector<unsigned char> settings;  // a flattened message; empty without settings

  // The user it runs as; kUnknownUser when the system does not know the user.
  uid_t userId() const;
};

// The socket that gives the figures of the bus.
struct MetricsSocket {
  static constexpr gid_t kOwnGroup = static_cast<gid_t>(-1);

  bool isOn = false;
  gid_t group = kOwnGroup;  // who may connect, beside the loader's user

  bool operator==(const MetricsSocket&) const = default;
};

struct Configuration {
  std::string file;                      // where it was read; empty without a file
  std::string stateFolder;               // where the loader keeps what must survive it
  std::string descriptions;              // the folder of the descriptions of services
  std::size_t queueLimit = 1024 * 1024;  // bytes that wait for one service before it counts as busy
  unsigned int startSeconds = 60;        // of each service that has none of its own
  unsigned int stallSeconds = 10;  // a busy service that reads nothing for so long is disconnected; 0: never
  MetricsSocket metrics;
  Limits quota;                     // what users may take of the loader
  AccessList rights{"rights", {}};  // what users may do everywhere
  AccessList access;                // who may do what with the loader itself; empty: what `rights` says
  std::vector<ServiceConfiguration> services;
  Users users;
  common::Mistakes warnings;  // what can be lived with

  const ServiceConfiguration* find(unsigned int id) const;
  // The `access` of a service or of the loader itself; null without one.
  const AccessList* accessOf(unsigned int destination) const;
  // The ids of those that have one, in the order of the file, the loader's own first.
  std::vector<unsigned int> destinationsWithAccess() const;
};

// Ids that a configuration may give to a service.
bool isConfigurable(unsigned int id);

// The values of a configuration without a file.
Configuration defaultConfiguration();

// Reads the file that the command line names.  Every mistake in it is added to `mistakes`; without one the result is
// complete.
Configuration readConfiguration(const common::CommandLine& line, common::Mistakes& mistakes);
// The same from text; `file` is only its name.
Configuration parseConfiguration(const std::string& text, const std::string& file,
                                 common::Mistakes& mistakes);

}  // namespace loader
