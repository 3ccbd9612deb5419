#pragma once
// scripted_loader.h: a process that plays the loader for one connection as a test tells it to.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>

#include "tests/support/doubles/loader_double.h"
#include "tests/support/process/child_process.h"

namespace klctl {

constexpr std::chrono::milliseconds kAmple(20000);  // longer than any test with a script takes

class ScriptedLoader {
 public:
  using Script = std::function<void(kl::test::LoaderDouble&)>;

  explicit ScriptedLoader(const Script& script)
      : process_([&] {
          kl::test::LoaderDouble connection(listening_.accept());
          script(connection);
        }) {}

  // Waits for the end of the script.
  ~ScriptedLoader() { EXPECT_EQ(process_.waitForEnd(), 0); }
  ScriptedLoader(const ScriptedLoader&) = delete;
  ScriptedLoader& operator=(const ScriptedLoader&) = delete;

 private:
  kl::test::ListeningLoader listening_;
  kl::test::ChildProcess process_;
};

// For scripts: takes the registration and confirms it.
inline void confirm(kl::test::LoaderDouble& connection) {
  (void)connection.receive();
  connection.sendReady();
}

// For scripts: does nothing until the client ends.
inline void awaitEnd(const kl::test::LoaderDouble& connection) {
  unsigned char bytes[4096];
  while (::recv(connection.fd(), bytes, sizeof bytes, 0) > 0) {
  }
}

}  // namespace klctl
