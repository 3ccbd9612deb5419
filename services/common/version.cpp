// The version word, which the build computes from the version of the project.

#include "services/common/version.h"

namespace common {

unsigned int versionWord() { return KL_VERSION_WORD; }

}  // namespace common
