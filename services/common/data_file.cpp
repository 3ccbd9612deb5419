// Files that were installed with the programs are found where the programs are, whatever the build was told.

#include "services/common/data_file.h"

#include <filesystem>

namespace common {

namespace fs = std::filesystem;

std::string findData(const std::string& underRoot, const std::string& fromProgram,
                     const std::string& installed) {
  std::error_code ignored;
  if (underRoot != installed && fs::exists(underRoot, ignored)) return underRoot;
  const fs::path program = fs::read_symlink("/proc/self/exe", ignored);
  const fs::path beside = (program.parent_path() / fromProgram).lexically_normal();
  return fs::exists(beside, ignored) ? beside.string() : installed;
}

}  // namespace common
