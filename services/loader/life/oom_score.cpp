// The score is a number in a file of the process; a child inherits it and may raise it without any right.

#include "life/oom_score.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "services/common/descriptor.h"

namespace loader {
namespace {

constexpr char kFile[] = "/proc/self/oom_score_adj";
constexpr int kLoaderScore = -900;

int inherited = 0;

bool writeScore(int score) {
  const common::Descriptor file(::open(kFile, O_WRONLY | O_CLOEXEC));
  char text[16];
  const int length = std::snprintf(text, sizeof text, "%d", score);
  return ::write(file.get(), text, static_cast<std::size_t>(length)) == length;
}

int readScore() {
  const common::Descriptor file(::open(kFile, O_RDONLY | O_CLOEXEC));
  char text[16] = {};
  return ::read(file.get(), text, sizeof text - 1) > 0 ? std::atoi(text) : 0;
}

}  // namespace

void lowerOomScore() {
  inherited = readScore();
  if (inherited > kLoaderScore) (void)writeScore(kLoaderScore);
}

void restoreOomScore() { (void)writeScore(std::max(inherited, 0)); }

bool setOomScore(int score) { return writeScore(score); }

}  // namespace loader
