#pragma once
// scenarios.h: what the loader is put through.  Each scenario has a loader of its own; how much of it is given by the
// caller.  Needs: a private root.

#include <cstddef>

#include "tests/attack/report.h"

namespace attack {

// Frames that are none from 50 peers, while two others measure their round trips.  Those without an attack are
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

// The following attacks are made by processes of user nobody, while two others measure their round trips (siege.h).

// How long each part of such a scenario takes.
struct Pace {
  int quietMs;   // the two others without an attack, before and after
  int attackMs;  // under attack
};

// Frames of so many bytes for the loader's own service.
Report hugeFrames(Pace pace, unsigned int attackers, std::size_t bytes);

// One process with so many connections, each with a frame that lacks its last bytes.
Report unfinishedFrames(Pace pace, unsigned int frames);

// Requests for the whole table, one write after the other, by processes that read no reply, or all of them.
Report unreadReplies(Pace pace, unsigned int askers);
Report pipelinedTables(Pace pace, unsigned int attackers);

// Messages to as many paths as fit into one.
Report widePaths(Pace pace, unsigned int attackers);

// One process with so many connections, each with 64 subscriptions to the loader's table, as long as it takes them.
Report manySubscriptions(Pace pace, unsigned int connections);

// So many requests of 4 KiB to a service that does not read, and one of another.
Report fullQueue(unsigned int frames);

// Connections that register and stay, those that all end when their process does (with quotas that let all of them
// in), and those that never register.
Report manyRegistrations(Pace pace, unsigned int connections);
Report endsAtOnce(Pace pace, unsigned int connections);
Report silentConnectors(Pace pace, unsigned int connections);

// Registrations of one user at a loader that may have few descriptors, and that restarts a service meanwhile.
Report fewDescriptors(Pace pace, unsigned int connections);

// Processes that register and close, again and again; what that costs the others, and the counter of ids.
Report comingsAndGoings(Pace pace, unsigned int attackers);
Report pickedIds(Pace pace, unsigned int attackers);

// Links that lead elsewhere, in the place of the markers of a service's first start.
Report markerLinks(unsigned int starts);

// Lines without end for the log service; root's must stay.
Report logFlood(Pace pace, unsigned int processes);

}  // namespace attack
