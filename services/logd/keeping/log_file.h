#pragma once
// log_file.h: one file of lines, with those that it replaced.

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "keeping/file_shares.h"
#include "keeping/line.h"
#include "services/common/descriptor.h"

namespace logd {

// A file of the configuration.
struct FileRule {
  std::string path;
  Topics topics;  // a line goes there that has one of them; empty: every line
  unsigned long long mostBytes = 1024 * 1024;
  unsigned int count = 5;  // of files: this one, and PATH.1, PATH.2 ... that it replaced
  unsigned int sync = 0;   // LOG_SYNC_...
  bool isShared = true;    // every user has a part of it; else whoever writes most replaces it

  bool takes(const Topics& of) const { return topics.empty() || haveOneInCommon(topics, of); }
};

// Writes lines to a file and replaces it when it is full.  A user whose part of it is full (FileShares) is left out
// until it is replaced, which is then done when the file is a day old: no user replaces the lines of others faster.
//
// Errors:    when a file cannot be written, one sentence is reported, lines are counted and not written, and
//            it is tried again every second; another sentence says that it works again.
// Ownership: owns the descriptor.
// Threads:   belongs to one thread.
// Cost:      one write for everything that was added since the last flush.
class LogFile {
 public:
  // Gets each sentence that an operator should read.
  using Report = std::function<void(const std::string& sentence)>;

  LogFile(FileRule rule, Report report)
      : rule_(std::move(rule)), report_(std::move(report)), shares_(rule_.mostBytes) {}

  const FileRule& rule() const { return rule_; }

  // Adds a line, newline included, of a user; without one it is the system's.  A longer one than the file is cut.
  void add(std::string_view line, Nanoseconds now, std::optional<unsigned int> user = {});
  // Writes what was added.
  void flush(Nanoseconds now);
  // A second has passed.
  void tick();
  // Somebody has moved the file away: the next line makes it anew.
  void reopen(Nanoseconds now);

  const std::string& failure() const { return failure_; }  // empty: lines are written
  unsigned long long lost() const { return lost_; }        // lines that were not written, since the start

 private:
  bool mayTry(Nanoseconds now) const { return failure_.empty() || now >= nextTry_; }
  bool open(Nanoseconds now);
  bool writeOut();
  bool rotate(Nanoseconds now);
  bool hasRoomFor(unsigned int user, std::size_t bytes, Nanoseconds now);
  void replace(Nanoseconds now);
  void beginShares(Nanoseconds now);
  void lose(unsigned long long lines);
  void removeSurplus() const;
  std::string pathOf(unsigned int age) const;
  void stop(const std::string& reason, Nanoseconds now);
  void goOn();
  void loseBuffer();
  void syncNow();

  FileRule rule_;
  Report report_;
  common::Descriptor file_;
  bool isRegular_ = true;
  unsigned long long size_ = 0;
  FileShares shares_;
  std::string buffer_;
  bool isDirty_ = false;  // written since it was last synced
  std::string failure_;
  Nanoseconds nextTry_ = 0;
  unsigned long long lost_ = 0;
  unsigned long long lostSinceStop_ = 0;
};

}  // namespace logd
