// Links where the loader, or a service of root, makes files.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "kl/utilities.h"
#include "tests/attack/client.h"
#include "tests/attack/scenarios.h"
#include "tests/attack/siege.h"

namespace attack {
namespace {

constexpr const char* kTreasure = "/kelo/treasure";  // a file of root
constexpr const char* kMade = "/kelo/made";          // none
constexpr const char* kWords = "root's words\n";
constexpr unsigned int kMarkedService = 600;

std::string wordsIn(const char* path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
}

// The link leads to root's file, to none, or is gone, in turn.
[[noreturn]] void flip(const std::string& marker, Deeds& deeds) {
  ++deeds.inPlace;
  for (unsigned int n = 0;; ++n) {
    if (::symlink(n % 2 == 0 ? kTreasure : kMade, marker.c_str()) == 0) ++deeds.done;
    else ++deeds.refused;
    (void)::unlink(marker.c_str());
  }
}

}  // namespace

Report markerLinks(unsigned int starts) {
  Report report{"Links in the place of first-start markers", {}, {}, 0};
  (void)::chmod(kl::runFolderPath().c_str(), 01777);
  std::ofstream(kTreasure) << kWords;
  (void)::chmod(kTreasure, 0600);
  Attackers army;
  army.start(2, [](unsigned int number, Deeds& deeds) {
    flip(kl::runFolderPath() + (number == 0 ? "/kl-attack-victim" : "/victim"), deeds);
  });
  unsigned int started = 0;
  for (unsigned int n = 0; n < starts; ++n) {
    const kl::test::LoaderProcess loader(
        "[[service]]\nname = \"victim\"\nid = " + std::to_string(kMarkedService) +
        "\ncommand = [\"" KL_BIN_DIR "/kl-attack-victim\"]\n");
    Client client;
    const kl::message reply = client.ask({kMarkedService, 1}, kl::CMD_GET);  // waits until it has registered
    started += kl::isReply(reply) && !kl::isError(reply) ? 1 : 0;
  }
  struct stat info {};
  report.figure("starts", starts);
  report.figure("links", army.deeds().done);
  report.promise(started == starts, "the service did not start");
  report.promise(wordsIn(kTreasure) == kWords, "a file of root was changed");
  report.promise(::lstat(kMade, &info) != 0, "a file was made at the end of a link");
  army.kill();
  (void)::unlink(kTreasure);
  return report;
}

}  // namespace attack
