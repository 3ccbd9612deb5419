#pragma once
// client.h: one process that writes lines.

#include <functional>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "intake/accounts.h"
#include "intake/record_reader.h"
#include "keeping/log_book.h"
#include "kl/runner.h"
#include "services/common/descriptor.h"
#include "services/common/timer.h"

namespace logd {

// The process that a client's socket belongs to, as the kernel reports it: name, number and user.
Origin originAt(int fd);

// The identity and the limits of a client.
struct Standing {
  Origin about;  // the process
  std::shared_ptr<ProcessAccount> account;
  bool isLoader = false;  // which alone may use the loader's topic
};

// The figures of all clients together.
struct Tally {
  unsigned long long lines = 0;    // taken
  unsigned long long dropped = 0;  // written too fast
  unsigned long long torn = 0;     // begun and not ended when their client went
};

// Reads what a process writes, gives each source its topics, and sends the process a mute record for each of its
// sources that is muted.
//
// Errors:    a process that writes what is no record, or in the name of a source that it did not register, is
//            disconnected with a line that says so.  Lines beyond its account are dropped and counted.
// Ownership: owns the socket; borrows everything else.
// Threads:   belongs to one thread.
// Cost:      one read for many lines, one write for up to 42 mute records.
class Client final {
 public:
  // A process has at most so many sources.
  static constexpr std::size_t kMostSources = 512;

  // Called once the client has ended; it destroys the client, of which nothing is used any more.
  using OnEnd = std::function<void(Client& client)>;

  Client(kl::ThinRunner& runner, LogBook& book, Tally& tally, common::Descriptor socket, Standing standing,
         OnEnd onEnd);
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() { close(); }

  int fd() const { return socket_.get(); }
  UserAccount& user() const { return account_->user(); }
  // When it last wrote something, or came.
  Nanoseconds lastRead() const { return now_; }

  // The rules have changed.
  void applyMutes();

  // Reads what is still there, but waits for nothing.  The log service is about to end.
  void drain();

  // Ends it in favour of another client; what its process has written is taken.
  void makeRoom();

 private:
  struct Source {
    std::shared_ptr<const Origin> origin;
    bool isMuted = false;  // by the rules
    bool isTold = false;   // the last record to the process
  };

  void onEvent(int fd, unsigned int events);
  bool readOnce();
  void take(std::span<const unsigned char> bytes);
  // Each gives null, or what is wrong with the record.
  const char* takeRecord(const Record& record);
  const char* addSource(unsigned int source, Topics topics);
  bool hasRoomForSource() const;
  const char* addLine(unsigned int source, std::string_view text);
  Topics withoutForeign(Topics topics);
  void tellMutes();
  bool sendRecords(const std::string& records);
  void end();
  void close();

  kl::ThinRunner& runner_;
  LogBook& book_;
  Tally& tally_;
  common::Descriptor socket_;
  Origin about_;  // the process
  std::shared_ptr<ProcessAccount> account_;
  bool isLoader_;
  OnEnd onEnd_;
  RecordReader reader_;
  std::map<unsigned int, Source> sources_;
  const char* fault_ = nullptr;  // why it is to be disconnected; null: it is not
  common::Timer<&Client::tellMutes> retry_;
  Nanoseconds now_;  // of the read in hand, or of the last one
  Nanoseconds received_ = 0;
};

}  // namespace logd
