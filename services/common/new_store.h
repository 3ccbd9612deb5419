#pragma once
// new_store.h: the files of a store before its first use.

#include <string>

namespace common {

// Makes the files of an empty kl::Store at this path, its folder included, where there is no trace of one: a store that
// finds no files reports that, and a first start is no failure.  What is there, and what cannot be made, is left to the
// store, which reports it.  The path, so that it can be called where the store is made:
//
//     Records::Records(const std::string& folder) : store_(newStore(folder + "/records"), kLifetime) {}
std::string newStore(const std::string& path);

}  // namespace common
