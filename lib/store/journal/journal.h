#pragma once
// journal.h: finishes what a process that was killed left half done.

#include <cstddef>
#include <string>

namespace kl {

// Needs: the lock of this store, of which `lockFd` is the file.  Carries out a whole intent or commit record that
// stands there, drops a partial one, and says how many bytes a durable record takes at the start of the file:
// nothing else is left in it.  Prints nothing.  Cost: one system call if there is nothing to do.
std::size_t recoverChange(const std::string& basePath, int lockFd);

// Needs: the lock.  Cuts both files back to the lengths that a durable record names if they disagree with each
// other, makes them durable, and empties the lock file.  False if no record was there, or one of other files.
bool recoverLengths(const std::string& basePath, int lockFd);

// Whether every slot of the index has a size, and all sizes add up to the length of the data file.
bool filesAgree(const std::string& idxPath, const std::string& dataPath);

}  // namespace kl
