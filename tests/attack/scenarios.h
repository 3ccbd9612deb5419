#pragma once
// scenarios.h: what the loader is put through.  Each scenario has a loader of its own; how much of it is given by the
// caller.  Needs: a private root.

#include "tests/attack/report.h"

namespace attack {

// Frames that are none from 50 peers, while two others measure their round trips.  What they have without an attack is
// measured for `compareMs` in each way.
Report malformedFrames(unsigned int random, unsigned int structured, unsigned int seed, int compareMs);

// `readers` processes get `deliveriesASecond` in all for so long; one of them does not read.
Report stuckReader(unsigned int readers, unsigned int deliveriesASecond, unsigned int payloadBytes,
                   unsigned int seconds);

// Peers take every descriptor that the loader may have, and give them back, again and again.
Report descriptorExhaustion(unsigned int rounds);

// Peers register and go.
Report connects(unsigned int times);

// Messages that say they are from somebody else, with the rights of somebody else, and replies to nothing.
Report forgeries(unsigned int frames, unsigned int seed);

// Services are killed while they are asked.
Report kills(unsigned int times, unsigned int seed);

// The loader is told to end while services start, leave, are asked and die, and peers register by halves.
Report endings(unsigned int times, unsigned int seed);

}  // namespace attack
