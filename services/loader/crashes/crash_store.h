#pragma once
// crash_store.h: the reports of crashes, on disk.

#include <cstddef>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "kl/message.h"
#include "logging/log.h"

namespace loader {

struct KeptCrash {
  unsigned int id = 0;
  unsigned long long time = 0;  // nanoseconds since 1970
  std::string service = "";
  unsigned int serviceId = 0;
  unsigned int pid = 0;
  std::string signal = "";
  std::string where = "";
  unsigned int times = 1;
  std::string program = "";
  std::string buildId = "";
  std::string key = "";  // tells crashes of a program apart; not part of the message

  // As its file has it, and service 1 shows it, without its report.
  kl::message message() const;
};

// What a crash leaves behind, besides what the list shows.
struct CrashContents {
  std::string report;
  std::vector<kl::message::flat_message> messages =
      {};  // the last ones of the service (services/common/tap.h)
};

// A folder that nobody but the loader's user can read, with a file for each crash: the message that shows it.  A crash
// that happened before at the same place takes the place of the former one, under its id, and is counted.  When there
// are too many, of one service or in all, or the disk is full, the oldest go.
//
// Errors:    one line on the log; a crash whose report cannot be written is not kept.
// Ownership: owns the files; keeps all but the reports in memory.
// Threads:   belongs to one thread.
// Cost:      a file is written for each crash and not synced: it outlives the loader, and not a loss of power.
class CrashStore {
 public:
  static constexpr std::size_t kMost = 64;
  static constexpr std::size_t kMostOfService = 8;

  CrashStore(std::string folder, Log& log) : folder_(std::move(folder)), log_(log) {}

  // Makes the folder, and finds what is there.
  void open();

  // The id under which it is kept; 0: it is not.
  unsigned int add(KeptCrash crash, const CrashContents& contents);
  // The place has got a name.
  void setWhere(unsigned int id, const std::string& where);

  const std::deque<KeptCrash>& all() const { return crashes_; }  // the latest first
  const KeptCrash* find(unsigned int id) const;                  // borrowed until the next change
  // With what it left behind; an empty message when its file cannot be read.
  kl::message read(unsigned int id) const;

 private:
  void load(unsigned int id);
  bool write(const KeptCrash& crash, const CrashContents& contents);
  bool makeRoom();
  void dropBeyondLimits();
  void drop(std::size_t index);
  std::string fileOf(unsigned int id) const { return folder_ + "/" + std::to_string(id); }

  std::string folder_;
  Log& log_;
  std::deque<KeptCrash> crashes_;
  unsigned int lastId_ = 0;
};

}  // namespace loader
