// A file is made with O_EXCL: it has the mode that it is made with, and is what no other user has put there.

#include "output/capture_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "output/pcapng.h"
#include "values/failure.h"

namespace klctl {
namespace {

constexpr mode_t kForItsOwner = 0600;

// A pipe, a terminal or another device.
bool isStream(int fd) {
  struct stat status {};
  return ::fstat(fd, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode));
}

// The bytes of those of the blocks that end within the first `count`.
std::size_t wholeBytes(const std::string& blocks, std::size_t count) {
  std::size_t whole = 0;
  while (whole < count) {
    const std::size_t end = whole + pcapng::blockBytes(blocks.data() + whole);
    if (end > count) break;
    whole = end;
  }
  return whole;
}

}  // namespace

CaptureFile::CaptureFile(std::string path) : path_(std::move(path)) {
  if (path_ == kStandardOutput) takeStandardOutput();
  else if (!make()) openStream();
}

CaptureFile::~CaptureFile() {
  if (isOwn_ && written_ == 0) ::unlink(path_.c_str());
}

void CaptureFile::takeStandardOutput() {
  path_ = "the standard output";
  file_ = common::Descriptor(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  if (!file_.isOpen()) fail(std::strerror(errno));
}

bool CaptureFile::make() {
  constexpr int kNew = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
  file_ = common::Descriptor(::open(path_.c_str(), kNew, kForItsOwner));
  isOwn_ = file_.isOpen();
  if (!isOwn_ && errno != EEXIST) fail(std::strerror(errno));
  return isOwn_;
}

// A path that turns out to be a file's is not touched.
void CaptureFile::openStream() {
  file_ = common::Descriptor(::open(path_.c_str(), O_WRONLY | O_CLOEXEC));
  if (!file_.isOpen()) fail(std::strerror(errno));
  if (!isStream(file_.get())) fail("is there already, and no file is overwritten");
}

void CaptureFile::add(const std::string& blocks) {
  pending_ += blocks;
  if (pending_.size() >= kMostGathered) flush();
}

void CaptureFile::flush() {
  std::size_t done = 0;
  while (file_.isOpen() && done < pending_.size()) {
    const ssize_t count = ::write(file_.get(), pending_.data() + done, pending_.size() - done);
    if (count > 0) done += static_cast<std::size_t>(count);
    else if (errno == EAGAIN) awaitRoom();
    else if (errno != EINTR) giveUp(done, errno);
  }
  written_ += done;
  pending_.clear();
}

// A standard output may have been made not to wait.
void CaptureFile::awaitRoom() const {
  pollfd watched{file_.get(), POLLOUT, 0};
  (void)::poll(&watched, 1, -1);
}

void CaptureFile::giveUp(std::size_t done, int error) {
  written_ += wholeBytes(pending_, done);
  if (isOwn_) (void)!::ftruncate(file_.get(), static_cast<off_t>(written_));
  file_.close();
  fail(std::strerror(error));
}

void CaptureFile::fail(const std::string& why) const { throw Failure(Status::kRefused, path_ + ": " + why); }

}  // namespace klctl
