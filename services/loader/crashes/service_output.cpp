// A pipe is watched while somebody may write to it.  When all of its writers are gone poll() would report that again and
// again, so it is left alone until the next process has it.

#include "crashes/service_output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace loader {
namespace {

constexpr std::size_t kReadBytes = 16 * 1024;   // with one read: a service that floods has no more of a pass
constexpr std::size_t kMostLastReads = 64 + 1;  // of a process that has ended: a pipe holds no more

bool areOneFile(int a, int b) {
  struct stat first {};
  struct stat second {};
  return ::fstat(a, &first) == 0 && ::fstat(b, &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

// Both ends have flags of their own: reading never waits, and whether writing does is the service's affair.
common::Descriptor newPipe(common::Descriptor& reader) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return common::Descriptor();
  (void)::fcntl(ends[0], F_SETFL, O_NONBLOCK);
  reader = common::Descriptor(ends[0]);
  return common::Descriptor(ends[1]);
}

// Another writing end of a pipe; not open where /proc is not mounted.
common::Descriptor writerOf(const common::Descriptor& reader) {
  const std::string path = "/proc/self/fd/" + std::to_string(reader.get());
  return common::Descriptor(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
}

}  // namespace

ServiceOutput::ServiceOutput(kl::ThinRunner& runner, Log& log, const std::string& service) : runner_(runner) {
  channels_.emplace_back(runner, log, service, STDOUT_FILENO, Stream::kOutput);
  if (!areOneFile(STDOUT_FILENO, STDERR_FILENO))
    channels_.emplace_back(runner, log, service, STDERR_FILENO, Stream::kErrors);
}

ServiceOutput::~ServiceOutput() {
  for (Channel& channel : channels_) unwatch(channel);
}

Streams ServiceOutput::open() {
  Streams streams;
  streams.output = openWriter(channels_.front());
  if (channels_.size() > 1) streams.errors = openWriter(channels_.back());
  else streams.errors = common::Descriptor(::fcntl(streams.output.get(), F_DUPFD_CLOEXEC, 0));
  return streams;
}

Caught ServiceOutput::end() {
  for (Channel& channel : channels_)
    for (std::size_t i = 0; channel.reader.isOpen() && i < kMostLastReads && read(channel); ++i) {
    }
  Caught caught;
  for (Channel& channel : channels_) {
    Caught here = channel.catcher.end();
    channel.write(here.rest);
    if (caught.report.empty() && (caught.signal == 0 || !here.report.empty())) caught = std::move(here);
    else channel.write(here.report);
    channel.lines.end();
  }
  return caught;
}

void ServiceOutput::setSpeaker(const std::string& speaker) {
  for (Channel& channel : channels_) channel.lines.setSpeaker(speaker);
}

void ServiceOutput::pass(const std::string& ordinary) {
  channels_.front().write(ordinary);
  channels_.front().lines.end();
}

void ServiceOutput::Channel::write(std::string_view ordinary) {
  sink.write(ordinary);
  lines.take(ordinary);
}

common::Descriptor ServiceOutput::openWriter(Channel& channel) {
  common::Descriptor writer;
  if (channel.reader.isOpen()) writer = writerOf(channel.reader);
  if (!writer.isOpen()) {
    unwatch(channel);
    channel.reader.close();
    writer = newPipe(channel.reader);
  }
  if (writer.isOpen()) watch(channel);
  return writer;
}

void ServiceOutput::watch(Channel& channel) {
  if (std::exchange(channel.isWatched, true)) return;
  runner_.addSocket(channel.reader.get(), this, kl::bind<ServiceOutput, &ServiceOutput::onReadable>(),
                    POLLIN);
}

void ServiceOutput::unwatch(Channel& channel) {
  if (std::exchange(channel.isWatched, false)) runner_.removeSocket(channel.reader.get());
}

void ServiceOutput::onReadable(int fd, unsigned int) {
  for (Channel& channel : channels_)
    if (channel.reader.get() == fd) (void)read(channel);
}

// False when there is no more at present.
bool ServiceOutput::read(Channel& channel) {
  char bytes[kReadBytes];
  const ssize_t count = ::read(channel.reader.get(), bytes, sizeof bytes);
  if (count > 0) channel.write(channel.catcher.take({bytes, static_cast<std::size_t>(count)}));
  const bool hasFailed = count < 0 && errno != EAGAIN && errno != EINTR;
  if (count == 0 || hasFailed) unwatch(channel);
  return count > 0;
}

}  // namespace loader
