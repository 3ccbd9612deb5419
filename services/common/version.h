#pragma once
// services/common/version.h: the version of the companions, which is that of the project.

namespace common {

// The version word that a companion registers with: the major number in its highest byte, then the minor number, the
// kind of the release as a character and its number, as version2string() in kl/utilities.h reads it.
unsigned int versionWord();

}  // namespace common
