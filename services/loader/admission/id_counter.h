#pragma once
// id_counter.h: the ids that the loader picks for services that ask for none.

#include <array>
#include <functional>
#include <optional>
#include <string>

#include "logging/log.h"

namespace loader {

// Counts upward from kFirst to kLast and then from kFirst again, across restarts of the loader, so that an id comes
// again only after millions of others: a holder of an old path does not reach a stranger.  However fast they are used
// up, none comes again within a day.
//
// The file holds the first id that no loader has given out yet, as text.  Ids are claimed in blocks, so that
// picking one rarely touches the disk.  The rest of a block is given back at an orderly end; after any other the
// next loader skips it.
//
// Errors:    a file that cannot be read or written costs a line on the log; counting goes on in memory.
// Ownership: owns the file's content.
// Threads:   belongs to one thread.
// Cost:      one synced write for every kBlock ids.
class IdCounter {
 public:
  static constexpr unsigned int kFirst = 0x10000;
  static constexpr unsigned int kLast = 0xfeffff;
  static constexpr unsigned int kBlock = 0x10000;
  static constexpr unsigned int kRestSeconds = 86400;

  using Seconds = std::function<unsigned int()>;  // since any beginning

  IdCounter(std::string file, Log& log);
  IdCounter(std::string file, Log& log, Seconds seconds);
  IdCounter(const IdCounter&) = delete;
  IdCounter& operator=(const IdCounter&) = delete;
  ~IdCounter();

  // The next id; 0 when each was given out less than kRestSeconds ago, unless that does not matter.
  unsigned int next(bool mayComeEarly = false);

 private:
  unsigned int readFile();
  bool isResting() const;
  void claimBlock();
  void leaveBlock();

  std::string file_;
  Log& log_;
  Seconds seconds_;
  unsigned int next_;
  unsigned int claimedEnd_;  // the file has at least this
  std::array<std::optional<unsigned int>, kLast / kBlock + 1>
      leftAt_;  // when the last id of a block was given out
};

}  // namespace loader
