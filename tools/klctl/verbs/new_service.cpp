// The files are those of a folder that is installed with klctl, with the name and the number of the service put in.

#include "verbs/new_service.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include "kl/utilities.h"
#include "output/show.h"
#include "services/common/configuration_file.h"
#include "services/common/data_file.h"
#include "services/describe/check.h"
#include "values/failure.h"
#include "values/json.h"

namespace klctl {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLongestName = 40;
constexpr unsigned int kFirstNumber = 1000;
constexpr unsigned int kNumbers = 9000;
constexpr char kSuffix[] = ".in";

// Two new services of one system should not have the same number, so it is made of the name.
unsigned int numberFor(const std::string& name) {
  unsigned int hash = 2166136261;
  for (const char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619;
  return kFirstNumber + hash % kNumbers;
}

std::string replaced(std::string text, const std::string& what, const std::string& by) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size())
    text.replace(at, what.size(), by);
  return text;
}

std::string textOf(const fs::path& file) {
  common::Mistakes mistakes;
  const auto text = common::readFile(file.string(), mistakes);
  if (!text) throw Failure(Status::kRefused, mistakes.front().describe());
  return *text;
}

std::map<std::string, std::string> filesFor(const std::string& name) {
  const std::string folder =
      common::findData(kl::underRoot(KLCTL_TEMPLATES), KLCTL_TEMPLATES_FROM_PROGRAM, KLCTL_TEMPLATES);
  std::map<std::string, std::string> files;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    if (entry.path().extension() != kSuffix) continue;
    const std::string text = replaced(textOf(entry.path()), "@ID@", std::to_string(numberFor(name)));
    files[replaced(entry.path().stem().string(), "NAME", name)] = replaced(text, "@NAME@", name);
  }
  if (files.empty()) throw Failure(Status::kRefused, "there is nothing to make a service of in " + folder);
  return files;
}

void refuseName(const std::string& name) {
  if (!describe::isName(name) || name.size() > kLongestName)
    throw usage("'" + name +
                "' is no name of a service: small letters and digits, words with one _ between them");
}

void write(const fs::path& file, const std::string& text) {
  std::ofstream out(file);
  if (!(out << text).flush())
    throw Failure(Status::kRefused, "cannot write " + file.string() + ": " + std::strerror(errno));
}

}  // namespace

void makeService(const CommandLine& line, const Channels& channels) {
  const std::string& name = line.file;
  refuseName(name);
  const auto files = filesFor(name);
  std::error_code error;
  if (!fs::create_directory(name, error))
    throw Failure(Status::kRefused, "cannot make the folder " + name + ": " +
                                        (error ? error.message() : std::strerror(EEXIST)));
  std::string text;
  Json all = Json::array();
  for (const auto& [file, content] : files) {
    const fs::path path = fs::path(name) / file;
    write(path, content);
    text += path.string() + "\n";
    all.push_back(path.string());
  }
  channels.print(line.json ? jsonText(all) : text);
  if (channels.isTerminal)
    channels.remark("build and test it: cmake -S " + name + " -B " + name + "/build && cmake --build " +
                    name + "/build && ctest --test-dir " + name + "/build");
}

}  // namespace klctl
