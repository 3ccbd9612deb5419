#pragma once
// crashes.h: what becomes of a crash.

#include <sys/types.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "crashes/crash_store.h"
#include "crashes/program_file.h"
#include "crashes/symbols.h"

namespace loader {

// A process of a service that has crashed and left a report.
struct Crashed {
  std::string service;
  unsigned int serviceId = 0;
  pid_t pid = 0;
  uid_t user = 0;
  std::vector<gid_t> groups;  // as in ServiceConfiguration
  ProgramFile program;
  std::string report;
};

// Reads the report of a crash, masks what is secret in it, keeps it with the last messages of the service, and looks for the place in the source.  One line of
// the log says all of that, and whoever shows the service is told how it ended.
//
// Errors:    one line on the log.
// Ownership: owns the store; borrows the loop and the log.
// Threads:   that of the loop.
// Cost:      nothing without a crash.
class Crashes {
 public:
  // The names that fields of this service, as reports have them, are secret under.
  using Secrets = std::function<std::set<std::string>(unsigned int service)>;
  // The last messages that this service has sent or got, as CrashContents has them.
  using LastMessages = std::function<std::vector<kl::message::flat_message>(unsigned int service)>;
  // "killed by SIGSEGV in leases.cpp:175 leases::Leases::cmdGetObj".
  using OnNamed = std::function<void(const Crashed& crashed, const std::string& end)>;

  Crashes(kl::ThinRunner& runner, Log& log, const std::string& folder, Secrets secrets,
          LastMessages lastMessages, OnNamed onNamed)
      : log_(log),
        store_(folder, log),
        symbols_(runner),
        secrets_(std::move(secrets)),
        lastMessages_(std::move(lastMessages)),
        onNamed_(std::move(onNamed)) {}

  void open() { store_.open(); }
  void add(const Crashed& crashed);
  const CrashStore& store() const { return store_; }

 private:
  std::string withoutSecrets(const Crashed& crashed) const;
  void tell(const Crashed& crashed, unsigned int id, const std::string& end);

  Log& log_;
  CrashStore store_;
  Symbols symbols_;
  Secrets secrets_;
  LastMessages lastMessages_;
  OnNamed onNamed_;
};

}  // namespace loader
