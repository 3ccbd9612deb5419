// The fixed paths, for programs that see only the public headers.

#include "kl/utilities.h"

#include "fixed_paths.h"

namespace kl {

std::string loaderSocketPath() { return paths::kLoaderSocket; }

std::string logSocketPath() { return paths::kLogSocket; }

std::string runFolderPath() {
  std::string folder = paths::kFirstStartMarkers;
  folder.pop_back();  // the slash that the marker's name follows
  return folder;
}

}  // namespace kl
