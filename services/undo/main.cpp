// kl-undo: keeps what services report of changes, and undoes them when it is told to.

#include <CLI/CLI.hpp>

#include "undo_service.h"

namespace {

constexpr int kUsageStatus = 2;

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Keeps what services report of changes, and undoes them.  The loader starts it.", "kl-undo");
  app.set_version_flag("--version", "kl-undo " KL_VERSION);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& end) {
    return app.exit(end) == 0 ? 0 : kUsageStatus;
  }
  undo::UndoService().run();
}
