#pragma once
// id_counter.h: the ids that the loader picks for services that ask for none.

#include <string>

#include "logging/log.h"

namespace loader {

// Counts upward from kFirst to kLast and then from kFirst again, across restarts of the loader, so that an id comes
// again only after millions of others: a holder of an old path does not reach a stranger.
//
// The file holds the first id that no loader has given out yet, as text.  Ids are claimed in blocks, so that
// picking one rarely touches the disk; a restart skips what was left of a block.
//
// Errors:    a file that cannot be read or written costs a line on the log; counting goes on in memory.
// Ownership: owns the file's content.
// Threads:   belongs to one thread.
// Cost:      one synced write for every kBlock ids.
class IdCounter {
 public:
  static constexpr unsigned int kFirst = 0x10000;
  static constexpr unsigned int kLast = 0xfeffff;
  static constexpr unsigned int kBlock = 1024;

  IdCounter(std::string file, Log& log);

  unsigned int next();

 private:
  unsigned int readFile();
  void claimBlock();

  std::string file_;
  Log& log_;
  unsigned int next_;
  unsigned int claimedEnd_;  // the file has at least this
};

}  // namespace loader
