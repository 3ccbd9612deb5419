#pragma once
// folder.h: the folder under which a test has the fixed paths.

#include <string>

namespace kl::test {

// The folder, made if need be, in the one that KL_ROOT of the environment names if it names any; empty but for the folders
// that the loader makes.
//
// Errors: reported: a program that has asked for a fixed path before has them where the machine has them.  Where KL_ROOT
//         names a folder, that program stays there.
std::string freshRoot();

}  // namespace kl::test
