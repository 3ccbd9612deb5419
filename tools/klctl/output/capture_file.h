#pragma once
// capture_file.h: a file that is written in whole blocks, as long as there is room.

#include <cstddef>
#include <string>

#include "services/common/descriptor.h"

namespace klctl {

// Its content is for its owner alone, and nothing that is there already is overwritten.  A pipe, a device or the standard
// output, "-", is written to as it is.
//
//     CaptureFile file("night.pcapng");
//     file.add(pcapng::section("klctl", ""));
//     file.flush();
//
// Errors:    Failure(kRefused) for a file that cannot be made, and when something cannot be written.  A file that was made
//            here ends behind a whole block then, and add() and flush() do nothing any more.
// Ownership: owns the descriptor.  A file of its own without a single byte is removed.
// Threads:   belongs to one thread.
// Cost:      blocks are gathered up to 64 KiB; then, and when flush() says so, they are written at once.
class CaptureFile {
 public:
  static constexpr char kStandardOutput[] = "-";
  static constexpr std::size_t kMostGathered = 64 * 1024;

  explicit CaptureFile(std::string path);
  ~CaptureFile();
  CaptureFile(const CaptureFile&) = delete;
  CaptureFile& operator=(const CaptureFile&) = delete;

  void add(const std::string& blocks);
  void flush();

 private:
  void takeStandardOutput();
  bool make();
  void awaitRoom() const;
  void openStream();
  [[noreturn]] void giveUp(std::size_t done, int error);
  [[noreturn]] void fail(const std::string& why) const;

  std::string path_;
  common::Descriptor file_;  // closed once something could not be written
  bool isOwn_ = false;       // made here, and so a regular file
  std::string pending_;      // whole blocks
  std::size_t written_ = 0;
};

}  // namespace klctl
