// Whoever starts the loader by hand has secrets and habits in an environment of his own; they are none of the services'
// business.  A variable of the loader passes by its name, as a whole or by how it begins.

#include "config/environment.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace loader {
namespace {

constexpr std::string_view kUsualPath = "/usr/sbin:/usr/bin:/sbin:/bin";
constexpr std::string_view kRoot = "KL_ROOT";

// Where programs, libraries, the time and the language are.  What a sanitizer, an emulator or a count of lines is told
// concerns every program of a system under test.
constexpr std::string_view kPassing[] = {
    "PATH",          "TZ",           "TZDIR",         "LANG",        "LANGUAGE",          "ASAN_OPTIONS",
    "LSAN_OPTIONS",  "TSAN_OPTIONS", "UBSAN_OPTIONS", "GCOV_PREFIX", "GCOV_PREFIX_STRIP", "LLVM_PROFILE_FILE",
    "GLIBC_TUNABLES"};
constexpr std::string_view kPassingBeginnings[] = {"KL_", "LC_", "LD_", "QEMU_"};

// A service lives where its loader does.  A root that the loader may not believe would take it elsewhere.
bool passes(std::string_view name) {
  if (name == kRoot) return ::secure_getenv(kRoot.data()) != nullptr;
  return std::ranges::find(kPassing, name) != std::end(kPassing) ||
         std::ranges::any_of(kPassingBeginnings, [&](auto begin) { return name.starts_with(begin); });
}

void addPassing(Environment& environment) {
  for (char** variable = ::environ; variable != nullptr && *variable != nullptr; ++variable) {
    const std::string_view text = *variable;
    const std::size_t end = text.find('=');
    if (end != std::string_view::npos && passes(text.substr(0, end)))
      environment.emplace(text.substr(0, end), text.substr(end + 1));
  }
}

void addUser(Environment& environment, const ServiceConfiguration& service) {
  environment["HOME"] = service.home;
  if (service.login.empty()) return;
  environment["USER"] = service.login;
  environment["LOGNAME"] = service.login;
}

}  // namespace

Environment environmentOf(const ServiceConfiguration& service) {
  Environment environment;
  addPassing(environment);
  environment.emplace("PATH", kUsualPath);
  addUser(environment, service);
  for (const auto& [name, value] : service.environment) environment[name] = value;
  return environment;
}

}  // namespace loader
