#pragma once
// held_output.h: what the process holds back for its loader, so that several frames leave in one write.
//
// Another process may wait for what is held.  All code of the library that is about to wait therefore calls
// heldOutput.write() first.  A process has one connection to its loader, and so there is one of this.

#include <pthread.h>

#include <atomic>
#include <cstddef>

namespace kl {

// One thread holds and writes: for any other thread nothing is held, and write() does nothing there.  An exit may come
// on any thread, and so may a crash: take() gives the bytes to exactly one of all who ask, and only that one writes.
class HeldOutput {
 public:
  // Writes all of the bytes for `writer`, however long that takes.
  using Write = void (*)(void* writer, const unsigned char* bytes, std::size_t count);

  // From here to end() the calling thread may hold bytes for the socket.  `writer` is borrowed until end().
  void begin(int socket, void* writer, Write writeAll);
  // Needs: nothing is held.
  void end();
  // False for all but the writer of begin(), before begin(), behind end(), and when the process has begun to exit.
  bool mayHold(const void* writer) const;

  // One frame more is held: it ends `count` bytes behind `bytes`, where those that are held already begin.  The bytes
  // stay as they are until they are taken.
  void hold(const unsigned char* bytes, std::size_t count);
  std::size_t bytes() const { return bytes_.load(std::memory_order_relaxed); }
  unsigned int frames() const { return frames_; }

  // From now on nothing is held: the caller writes these bytes.
  std::size_t take();

  // Does the calling thread hold anything?
  bool isHere() const { return bytes() != 0 && isMine(); }
  // Writes what the calling thread holds.
  void write();
  // The calling thread has read the clock: writes what it held when it read another tick.
  void noteTick(unsigned int tick);
  // For a thread that does not read the clock: writes what was held at an earlier tick.  No system call where the
  // kernel shares its clock with processes.
  void writeOld();

  // Async-signal-safe: one send(2), which does not wait.  Nothing is held from now on.
  void attempt();

 private:
  bool isMine() const { return thread_.load(std::memory_order_relaxed) == ::pthread_self(); }

  static void writeAtExit();
  static void dropInChild();

  std::atomic<std::size_t> bytes_{0};
  std::atomic<bool> mayHold_{false};
  const unsigned char* begin_ = nullptr;
  unsigned int frames_ = 0;
  unsigned int tick_ = 0;   // the last that the thread read
  unsigned int since_ = 0;  // when the first frame was held
  int socket_ = -1;
  std::atomic<pthread_t> thread_{};
  void* writer_ = nullptr;
  Write write_ = nullptr;
};

extern constinit HeldOutput heldOutput;

}  // namespace kl
