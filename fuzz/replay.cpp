// Runs a fuzz target on every file of the folders that it is given: the kept corpus as an ordinary test, with any
// compiler and on any processor.  Status 0 when every promise held, 2 when there was nothing to run.

#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz/input.h"

namespace {

fuzz::Bytes contentOf(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::size_t runAll(const char* folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    std::fprintf(stderr, "%s\n", file.filename().c_str());  // the last one is the one that failed
    const fuzz::Bytes bytes = contentOf(file);
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  return files.size();
}

}  // namespace

int main(int count, char** folders) {
  std::size_t runs = 0;
  for (int i = 1; i < count; ++i) runs += runAll(folders[i]);
  std::fprintf(stderr, "%zu inputs\n", runs);
  return runs > 0 ? 0 : 2;
}
