#pragma once
// oom_score.h: who is ended first when the machine has no memory left.

namespace loader {

// Asks the kernel to end the loader last, as far as it may; without the right to ask nothing changes.
void lowerOomScore();

// Gives the calling process, which the loader has just forked, the score of before, and never one below that of any
// process.  Needs nothing that is unsafe between fork and exec.
void restoreOomScore();

// Gives it to the calling process.  Only root may give less than the process has.
bool setOomScore(int score);

}  // namespace loader
