#pragma once
// netif_service.h: netif, started by the real loader, and a process that asks it.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kl/looper.h"
#include "kl/services.h"
#include "netif.kl.h"
#include "tests/examples/kernel_view.h"
#include "tests/support/doubles/loader_process.h"

constexpr int kPatienceTicks = 2000;

inline std::string configured(const std::string& command) {
  return "[[service]]\nname = \"netif\"\nrestart = \"always\"\ncommand = [" + command + "]\n";
}

class NetifService : public testing::Test {
 protected:
  // The client asks for a service number of its own if it is to be reached under one; `others` are the services
  // that run beside netif.
  explicit NetifService(const std::string& command = "\"" KL_BIN_DIR "/netif\"",
                        unsigned int clientNumber = 0, const std::string& others = "")
      : loader_(configured(command) + others), client_(kl::Looper::kConnect, clientNumber) {}

  static kl::message to(unsigned int service) {
    kl::message m;
    m.insert(kl::SYS_TO, {service});
    return m;
  }

  kl::message ask(unsigned int command, kl::message m = to(netif::SERVICE)) {
    return client_.exchangeCmd(m, command, kPatienceTicks);
  }

  kl::message askFor(unsigned int command, unsigned int id) {
    kl::message m = to(netif::SERVICE);
    m.insert(kl::STD_ID, id);
    return ask(command, m);
  }

  kl::message describe(unsigned int id, const std::string& description) {
    kl::message m = to(netif::SERVICE);
    m.insert(kl::STD_ID, id);
    m.insert(kl::STD_DESCR, description);
    return ask(kl::CMD_SETOBJ, m);
  }

  kl::message getAll(unsigned int start, unsigned int count) {
    kl::message m = to(netif::SERVICE);
    m.insert(kl::STD_GETALLID, start);
    m.insert(kl::STD_GETALLNO, count);
    return ask(kl::CMD_GETALL, m);
  }

  static std::vector<unsigned int> idsOf(const kl::message& reply) {
    std::vector<unsigned int> ids;
    for (const kl::message object : reply.get(kl::STD_OBJS, {})) ids.push_back(object.get(kl::STD_ID, 0));
    return ids;
  }

  static std::vector<unsigned int> kernelIds() {
    std::vector<unsigned int> ids;
    for (const auto& [index, name] : kernel::names()) ids.push_back(index);
    return ids;
  }

  static unsigned int errorOf(const kl::message& reply) {
    unsigned int code = kl::ERROR_OK;
    (void)kl::isError(reply, &code);
    return code;
  }

  pid_t pid() {
    kl::message m = to(kl::SERVICE_LOADER);
    m.insert(kl::STD_ID, netif::SERVICE);
    return static_cast<pid_t>(ask(kl::CMD_GETOBJ, m).get(kl::SVC_PID, 0));
  }

  const unsigned int lo_ = ::if_nametoindex("lo");
  kl::test::LoaderProcess loader_;
  kl::Looper client_;
};
