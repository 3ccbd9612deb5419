#pragma once
// kept_data.h: what services saved when they last left.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kl/store.h"
#include "logging/log.h"

namespace loader {

// The data that are kept of one leave.  Moments are numbers that only grow, also over restarts of the loader.
struct Kept {
  std::vector<unsigned char> data;  // a flattened message; empty when it left without data
  unsigned long long savedAt = 0;   // the moment at which it was asked to leave
  std::vector<unsigned int> known;  // with data: who was there at that moment
  unsigned long long awaySince =
      0;                    // while it is away: the moment at which it had come; 0: it came again or ended
  unsigned int wakeAt = 0;  // while it is away: the second since 1970 at which it is to be started; 0: none

  friend bool operator==(const Kept&, const Kept&) = default;
};

// The last leave of each service, in memory and in a store, so that it survives the loader.
//
// Errors:    a store that cannot be used prints its own lines; the data are then kept in memory alone.  So are data
//            that are too long for a record, which costs a line on the log.
// Ownership: owns the data and the store.
// Threads:   belongs to one thread.
// Cost:      finding takes constant time; put() and endAbsence() write one record.
class KeptData {
 public:
  KeptData(std::string path, Log& log) : path_(std::move(path)), log_(log) {}
  KeptData(const KeptData&) = delete;
  KeptData& operator=(const KeptData&) = delete;

  // Opens the store and reads what is in it.  Needs: no other loader uses it.
  void open();

  // Null when the service has never left, or left without data and is there again.  Borrowed until the next change.
  const Kept* find(unsigned int id) const;
  const std::map<unsigned int, Kept>& all() const { return kept_; }

  void put(unsigned int id, Kept kept);
  // The service is no longer away: it came again, or ended for good.  Its data stay.
  void endAbsence(unsigned int id);

  // The latest moment in what was read.
  unsigned long long latest() const;

  // Makes everything durable.
  void flush();

 private:
  void write(unsigned int id, const Kept& kept);

  std::string path_;
  Log& log_;
  std::map<unsigned int, Kept> kept_;
  std::optional<kl::Store> store_;
};

// The form in which one leave is stored.
kl::message recordOf(const Kept& kept);
Kept keptOf(const kl::message& record);

}  // namespace loader
