#pragma once
// configuration.h: the configuration file, read and checked.

#include <map>
#include <string>
#include <vector>

#include "config/rights.h"
#include "quota/limits.h"
#include "services/common/command_line.h"

namespace loader {

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
  std::string folder;                // its working directory; empty: the loader's own
  std::map<std::string, std::string> environment;  // beside what the loader has
  Rights rights = Rights::everything();
  RestartRule restart = RestartRule::kAfterCrash;
  bool startsAtBoot = true;
  bool startsOnDemand = false;          // the first message for it starts it
  unsigned int startSeconds = 60;       // a process that does not register in that time has to end; 0: never
  unsigned int leaveIdleSeconds = 0;    // after so long without work it is asked to leave; 0: never
  std::vector<unsigned char> settings;  // a flattened message; empty without settings
};

struct Configuration {
  std::string stateFolder;               // where the loader keeps what must survive it
  std::size_t queueLimit = 1024 * 1024;  // bytes that wait for one service before it counts as busy
  unsigned int startSeconds = 60;        // of each service that has none of its own
  unsigned int stallSeconds = 10;  // a busy service that reads nothing for so long is disconnected; 0: never
  Limits quota;                    // what users may take of the loader
  Rights defaultRights;
  std::map<std::string, Rights> userRights;
  std::vector<ServiceConfiguration> services;

  // The rights of an ordinary user's requests.
  Rights rightsOf(const std::string& user) const;
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
