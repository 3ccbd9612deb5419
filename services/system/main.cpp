// kl-system: tells other services of the machine: its time zone, its name, its memory and its load.

#include <CLI/CLI.hpp>

#include "system_service.h"

namespace {

constexpr int kUsageStatus = 2;

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Tells other services of the machine.  The loader starts it.", "kl-system");
  app.set_version_flag("--version", "kl-system " KL_VERSION);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& end) {
    return app.exit(end) == 0 ? 0 : kUsageStatus;
  }
  kl_system::SystemService().run();
}
