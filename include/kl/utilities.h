#pragma once
// kl/utilities.h: small facts about the system that services and tools ask for.

#include <string>

#include "kl/export.h"

// --- Versions and kernel modules.  Global functions; nothing is printed, a failure shows in the result.

// A version word as text: major number in bits 31 to 24, minor number in 23 to 16, the kind of release as a
// character in 15 to 8 ('a' alpha, 'b' beta, 'c' release candidate, 'f' final), its number in 7 to 0 (0: none).
// "3.1" and "3.1.4" are finals, "3.2beta10" and "3.2rc" are not; an unknown kind has no tag: "3.25".
KL_API std::string version2string(unsigned int version);

// The installed system's version as text, from /var/pdb/system/version under the root (see "Places"), which begins with
// two decimal numbers; the first is the version word.  Empty when the file is missing or does not begin so.
KL_API std::string getOSVersion();

// Loads the module file `name` (with its extension) from /lib/modules/RELEASE/ of the running kernel.
// `parameters` is the module's text of parameters.  0, or -1: the file cannot be read or the kernel refuses;
// errno has the reason.
KL_API int insmod(const std::string& name, const std::string& parameters);

// Removes a module, given by its name or by the path of its file: folders and extension are cut off, and '-'
// means '_'.  A module that is in use is refused; kernels before 3.13 wait for its users.  0, or -1 and errno.
KL_API int rmmod(const std::string& name);

namespace kl {

// --- Figures of the kernel.

// Seconds since boot.  Counts as getJiffies() (kl/runner.h) does, and so starts again after 2^32 ticks.
KL_API unsigned int getUptime();

// Free memory with buffers and page cache, in KiB; if `totalKiB` is not null it receives the machine's whole
// memory.  Reads the first four lines of /proc/meminfo and needs them to be MemTotal, MemFree, Buffers and
// Cached.  Kernels since 3.14 have another third line: use getAvailableMemory, which works on any.
// Figures beyond 32 bits read as 0xFFFFFFFE.
// Errors: 0xFFFFFFFF, and `totalKiB` is left alone.
KL_API unsigned int getFreeMemory(unsigned int* totalKiB);

// Memory that programs can still get without swapping, in KiB, as the kernel estimates it (MemAvailable in
// /proc/meminfo); where the kernel does not, MemFree + Buffers + Cached, on whatever lines they stand.  Unlike
// that sum, the estimate leaves out the cache that cannot be given up.  If `totalKiB` is not null it receives
// the machine's whole memory.  Figures beyond 32 bits read as 0xFFFFFFFE.
// Errors: 0xFFFFFFFF when the file cannot be read or lacks a line; `totalKiB` is left alone.
KL_API unsigned int getAvailableMemory(unsigned int* totalKiB);

// --- Places.

// The places that every program of the system must agree on, so ask the library instead of writing them down again.
// Constant for the life of the process, on every thread.
//
// All of them stand under the root of the system: the folder that the environment variable KL_ROOT names, without it
// the one that the library was built for, usually none.  So a whole system can run in a folder of an ordinary user, in a
// container or in a test, beside another one on the same machine.
//
// KL_ROOT is read once, when the first of these places is asked for or the process first connects.  It is an absolute
// path without "..", of at most 83 bytes, so that the sockets' names fit behind it; for a process of root a folder that
// root owns and nobody else may write, and so are all above it.  Anything else ends the process with a line on the
// standard error stream and status 1.  A program with the set-user-ID bit or capabilities of its own ignores it.

// A path under that root: "/kelo/routes/table" is "/tmp/x/kelo/routes/table" where KL_ROOT is /tmp/x.  For the files of
// the system's own services; /proc, /dev, /sys and /lib/modules are the kernel's and have no root.
// Needs: `path` begins with a slash, or is empty, which gives the root itself (empty where there is none).
KL_API std::string underRoot(const std::string& path);

// The socket that services connect to: under the root, "/ram/kelosock".
KL_API std::string loaderSocketPath();

// The socket that log lines go to: under the root, "/kelo/logs/logsocket".
KL_API std::string logSocketPath();

// The folder of the first-start markers, without a slash at its end: under the root, "/kelo/run".
KL_API std::string runFolderPath();

}  // namespace kl
