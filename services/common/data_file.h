#pragma once
// data_file.h: where the files are that were installed with the programs.

#include <string>

namespace common {

// The first of these places where there is something; where there is nothing at any, the last:
//   `underRoot`    `installed` with the root of the system in front; does not count where that is the same path
//   `fromProgram`  seen from the folder of this program, so that a build tree and a moved installation have their own
//   `installed`    where the build would install it
std::string findData(const std::string& underRoot, const std::string& fromProgram,
                     const std::string& installed);

}  // namespace common
