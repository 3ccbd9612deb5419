// kl-test-writer NUMBER COUNT BATCH PAUSE: a process that logs through the library.
//
// It writes COUNT lines "w<NUMBER> <i> <padding>." with i from 0 on, BATCH of them for each turn of its loop and with
// PAUSE ticks between the turns, and ends.  Its standard output gets "lost <i>" for each line that the library
// said was dropped, and "done" at the end.

#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include "kl/bind.h"
#include "kl/logger.h"
#include "kl/runner.h"
#include "kl/services.h"

namespace {

class Writer {
 public:
  Writer(kl::Runner& loop, char** words)
      : loop_(loop),
        name_(words[1]),
        count_(number(words[2])),
        batch_(number(words[3])),
        pause_(number(words[4])) {
    (void)loop_.addTimer(this, kl::bind<Writer, &Writer::onTurn>(), 0);
  }

  bool isDone() const { return next_ == count_; }

 private:
  static unsigned int number(const char* word) { return static_cast<unsigned int>(std::atoi(word)); }

  void onTurn() {
    for (unsigned int i = 0; i < batch_ && !isDone(); ++i) writeLine();
    if (!isDone()) (void)loop_.addTimer(this, kl::bind<Writer, &Writer::onTurn>(), pause_);
  }

  // The library's words on the standard output while it takes the line tell whether it dropped it.
  void writeLine() {
    std::ostringstream said;
    std::streambuf* const out = std::cout.rdbuf(said.rdbuf());
    lines_ << "w" << name_ << " " << next_ << " " << std::string(next_ % 100, 'x') << "." << std::flush;
    std::cout.rdbuf(out);
    const std::string text = said.str();
    if (text.find("dopping") != std::string::npos || text.find("dropping") != std::string::npos)
      std::cout << "lost " << next_ << "\n";
    ++next_;
  }

  kl::Runner& loop_;
  std::string name_;
  unsigned int count_;
  unsigned int batch_;
  unsigned int pause_;
  unsigned int next_ = 0;
  kl::lstream lines_{kl::TOPIC_INFO, 300u, 0};
};

class Loop : public kl::Runner {
 public:
  explicit Loop(char** words) : writer_(*this, words) {}
  int sleepTime(unsigned int now) override {
    stop_ = writer_.isDone();
    return stop_ ? 0 : kl::Runner::sleepTime(now);
  }

 private:
  Writer writer_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  Loop loop(argv);
  loop.run();
  std::cout << "done" << std::endl;
}
