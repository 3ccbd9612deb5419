// kl-system: serves facts about the machine to other services: its time zone, its name, its memory and its load.

#include "kl/description.h"
#include "services/common/command_line.h"
#include "system.kl.h"
#include "system_service.h"

int main(int argc, char** argv) {
  const common::Program program{"kl-system", "Tells other services of the machine.  The loader starts it."};
  int status = 0;
  if (!common::readCommandLine(program, argc, argv, status)) return status;
  kl_system::SystemService service;
  service.reportTooBig(true);
  kl::setDescription(system_service::kDescription);
  service.run();
}
