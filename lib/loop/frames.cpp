// The walk along the frames of the interrupted function and its callers.

#include "loop/frames.h"

namespace kl {

// Async-signal-safe.  Callers' frames lie at higher addresses; a chain that goes elsewhere is damaged and might
// never end.
void writeBacktrace(const WalkStart& start, std::uintptr_t bottom, std::uintptr_t top,
                    const SafeMemory& memory, ReportText& out) {
  for (std::size_t i = 0; i < start.callSiteCount; ++i) out.putWord("0x", start.callSites[i], " ");
  std::uintptr_t frame = start.frame;
  while (frame > bottom && frame < top) {
    std::uintptr_t words[2];  // the next frame, the return address
    if (!memory.read(frame, words) || words[1] == 0) return;
    out.putWord("0x", words[1], " ");
    bottom = frame;
    frame = words[0];
  }
}

}  // namespace kl
