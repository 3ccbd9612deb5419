#pragma once
// log_book.h: where every line goes.

#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "keeping/log_file.h"
#include "keeping/mute_rules.h"
#include "keeping/ring.h"
#include "keeping/syslog_export.h"
#include "keeping/system_users.h"
#include "keeping/topic_names.h"

namespace logd {

// The rules by which lines are kept.
struct BookRules {
  unsigned int memory = 4 * 1024 * 1024;  // bytes of lines
  std::string syslog;                     // the socket that gets every line, too; empty: none
  TopicNames names;
  Topics muted;
  std::vector<FileRule> files;
  SystemUsers system;  // whose lines nobody pushes out
};

// Takes lines: into memory, into the files whose rules they fit, to the machine's own log.  A remark of the
// log service itself becomes a line like any other, and never comes through a socket.
//
//     book.add(line, now);  book.add(other, now);
//     book.flush(now);                     // both are in their files now
//
// Errors:    the files' own; nothing here stops the others.
// Ownership: owns lines and files.
// Threads:   belongs to one thread.
// Cost:      add formats a line once, when a file wants it; flush writes once for each file.
class LogBook final {
 public:
  explicit LogBook(const BookRules& rules);
  LogBook(const LogBook&) = delete;
  LogBook& operator=(const LogBook&) = delete;

  // A text that is too long is cut, with a mark at its end.
  void add(Line line, Nanoseconds now);
  // A line of the log service's own; `about` is whom it concerns, null: itself.
  void say(Topic severity, const std::string& text, const Origin* about = nullptr);
  // Writes the lines that were added, and the remarks that waited.
  void flush(Nanoseconds now);

  void tick(Nanoseconds now);    // a second has passed
  void reopen(Nanoseconds now);  // files were moved away

  // Called for each line that has come into memory.
  void setOnNews(std::function<void()> onNews) { onNews_ = std::move(onNews); }

  const Ring& ring() const { return ring_; }
  // Followers have been sent every line so far.
  void noteTold() { ring_.noteTold(); }
  const SystemUsers& system() const { return system_; }
  const TopicNames& names() const { return names_; }
  const std::list<LogFile>& files() const { return files_; }
  MuteRules& mutes() { return mutes_; }
  const MuteRules& mutes() const { return mutes_; }

 private:
  void keep(Line line, Nanoseconds now);
  void flushFiles(Nanoseconds now);
  void addToFiles(const Line& line, Nanoseconds now);

  SystemUsers system_;
  Ring ring_;
  TopicNames names_;
  MuteRules mutes_;
  std::list<LogFile> files_;
  SyslogExport syslog_;
  std::function<void()> onNews_;
  std::vector<Line> words_;  // of the log service, until the next flush
};

// The origin of the log service's own remarks; `about` is the process that they concern, null: itself.
std::shared_ptr<const Origin> ownOrigin(Topic severity, const Origin* about);

// The time of day, and a clock that only goes forward.
Nanoseconds timeOfDay();
Nanoseconds steadyTime();

}  // namespace logd
