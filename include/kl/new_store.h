#pragma once
// kl/new_store.h: the files of a store before its first use.

#include <string>

namespace kl {

// Makes the files of an empty kl::Store at this path, its folder included, where there is no trace of one: a store that
// finds no files reports that, and a first start is no failure.  The path, so that it can be called where the store is
// made:
//
//     Records::Records() : store_(kl::newStore(kl::underRoot("/kelo/records/table")), kLifetime) {}
//
// The files are for the user alone as whom the process runs, and lie in a folder of that user if it has to be made.
// kl::Table does this for the store that it keeps its objects in.
//
// Errors:    what is there and what cannot be made is left to the store, which reports it.
// Ownership: a value.
// Threads:   any; processes that make the same store at once make one.
// Cost:      three system calls where there is a store, some ten where there is none.
std::string newStore(const std::string& path);

}  // namespace kl
