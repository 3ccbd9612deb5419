#pragma once
// connection.h: how a process comes by its connection to the loader.

namespace kl {

// The loader's socket, non-blocking and close-on-exec: descriptor 3 if the loader passed it on, or a new
// connection, by the mode of Looper.  Without one the process ends with one line and status 1.
int openLoaderSocket(unsigned int mode);

}  // namespace kl
