#pragma once
// service_output.h: what the processes of one service write to their standard output and error streams.

#include <string>
#include <vector>

#include "crashes/output_sink.h"
#include "crashes/report_catcher.h"
#include "kl/runner.h"
#include "services/common/descriptor.h"

namespace loader {

// The streams that a new process is given; where one is not open, it has the loader's own.
struct Streams {
  common::Descriptor output = common::Descriptor();
  common::Descriptor errors = common::Descriptor();
};

// Reads the streams of a service, passes ordinary output on and keeps the report of a crash.  The process never waits for
// longer than a pass of the loop.  Where the loader's own two streams are one file, so are those of the service, and lines
// keep their order.
//
// A pipe stays for the next process: what a former one has started, and left behind, goes on writing.
//
//     ServiceOutput output(loop, log, "leases");
//     const Streams streams = output.open();     // for the process that is about to be started
//     const Caught caught = output.end();        // when it has ended
//
// Errors:    without descriptors the process writes to the loader's own streams, and its reports are not kept.
// Ownership: owns the reading ends; borrows the loop and the log.
// Threads:   that of the loop.
// Cost:      kMostDescriptors, from the first process on.
class ServiceOutput {
 public:
  static constexpr std::size_t kMostDescriptors = 2;

  ServiceOutput(kl::ThinRunner& runner, Log& log, const std::string& service);
  ServiceOutput(const ServiceOutput&) = delete;
  ServiceOutput& operator=(const ServiceOutput&) = delete;
  ~ServiceOutput();

  Streams open();
  // Reads what the process still said.  Whoever finds that this was no crash passes the report on.
  Caught end();
  void pass(const std::string& ordinary) { channels_.front().sink.write(ordinary); }

 private:
  struct Channel {
    OutputSink sink;
    common::Descriptor reader;
    bool isWatched = false;
    ReportCatcher catcher;
  };

  common::Descriptor openWriter(Channel& channel);
  void watch(Channel& channel);
  void unwatch(Channel& channel);
  void onReadable(int fd, unsigned int events);
  bool read(Channel& channel);

  kl::ThinRunner& runner_;
  std::vector<Channel> channels_;  // of the output, and of the errors where that is another file
};

}  // namespace loader
