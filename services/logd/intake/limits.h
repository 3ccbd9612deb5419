#pragma once
// limits.h: what processes and users may do at the log socket.

namespace logd {

// A process is a process however often it connects.  A user is any but the system's (keeping/system_users.h); those
// have no limit of users, and the last quarter of the clients is theirs alone.
struct Limits {
  unsigned int clients = 256;          // at the same time
  unsigned int clientsPerUser = 64;    // of one user
  unsigned int idleSeconds = 600;      // who was silent for so long makes room for another client
  unsigned int linesPerSecond = 2000;  // of one process; 0: as many as it likes
  unsigned int burst = 10000;          // lines that it may write at once
  unsigned int bytesPerSecond =
      1048576;                        // of one process, headers of records included; 0: as many as it likes
  unsigned int bytesBurst = 8388608;  // that it may write at once
};

}  // namespace logd
