#pragma once
// folder.h: the folder under which a test has the fixed paths.

#include <string>

namespace kl::test {

// The folder, made if need be; empty but for the folders that the loader makes.  What KL_ROOT of the environment names is
// left as it is.
//
// Errors: reported; a program that has asked for a fixed path before has them without a folder.
std::string freshRoot();

}  // namespace kl::test
