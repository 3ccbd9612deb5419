// The fixed paths, for programs that see only the public headers.

#include "kl/utilities.h"

#include "fixed_paths.h"

namespace kl {

std::string loaderSocketPath() { return underRoot(paths::kLoaderSocket); }

std::string logSocketPath() { return underRoot(paths::kLogSocket); }

std::string runFolderPath() { return underRoot(paths::kRunFolder); }

}  // namespace kl
