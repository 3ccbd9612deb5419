#pragma once
// service_output.h: what the processes of one service write to their standard output and error streams.

#include <list>
#include <string>
#include <string_view>

#include "crashes/output_sink.h"
#include "crashes/report_catcher.h"
#include "kl/runner.h"
#include "logging/output_lines.h"
#include "services/common/descriptor.h"

namespace loader {

// The streams that a new process is given; where one is not open, it has the loader's own.
struct Streams {
  common::Descriptor output = common::Descriptor();
  common::Descriptor errors = common::Descriptor();
};

// Reads the streams of a service, passes ordinary output on, to the loader's own streams and to the log, and keeps the
// report of a crash.  The process never waits for longer than a pass of the loop.  Where the loader's own two streams are
// one file, so are those of the service, lines keep their order, and all of them count as its output.
//
// A pipe stays for the next process: what a former one has started, and left behind, goes on writing.
//
//     ServiceOutput output(loop, log, "leases");
//     const Streams streams = output.open();     // for the process that is about to be started
//     output.setSpeaker("leases (300, pid 812)"); // once it has been
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
  // The name of the process before its lines on the log.  Without one, nothing is logged: what the log service writes
  // must not come back to it.
  void setSpeaker(const std::string& speaker);
  // Reads what the process still said.  A caller that finds no crash in it passes the report on.
  Caught end();
  void pass(const std::string& ordinary);

 private:
  struct Channel {
    Channel(kl::ThinRunner& runner, Log& log, const std::string& service, int own, Stream stream)
        : sink(own, service, log), lines(runner, log, stream) {}
    void write(std::string_view ordinary);

    OutputSink sink;
    OutputLines lines;
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
  std::list<Channel> channels_;  // of the output, and of the errors where that is another file
};

}  // namespace loader
