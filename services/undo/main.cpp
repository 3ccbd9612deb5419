// kl-undo: keeps what services report of changes, and undoes them by order.

#include "kl/description.h"
#include "services/common/command_line.h"
#include "undo.kl.h"
#include "undo_service.h"

int main(int argc, char** argv) {
  const common::Program program{
      "kl-undo", "Keeps what services report of changes, and undoes them.  The loader starts it."};
  int status = 0;
  if (!common::readCommandLine(program, argc, argv, status)) return status;
  undo::UndoService service;
  service.reportTooBig(true);
  kl::setDescription(undo_service::kDescription);
  service.run();
}
