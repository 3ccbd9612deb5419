#pragma once
// fixture.h: kl-system as a service of a real loader, in a zone of the test's own.  Needs: a private root.

#include <gtest/gtest.h>

#include <optional>

#include "kl/conventions.h"
#include "kl/utilities.h"
#include "tests/services/system/zone_file.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"

namespace kl_system {

class SystemProcess : public testing::Test {
 protected:
  inline static const std::string kZone = kl::underRoot("/ram/zone");
  static constexpr int kFirstOffset = 5400;

  SystemProcess() {
    replaceFile(kZone, zoneBytes(kFirstOffset));
    loader_.emplace(
        "[rights]\ndefault = \"all\"\n[[service]]\nname = \"system\"\nid = 24\ncommand = [\"" KL_BIN_DIR
        "/kl-system\"]\n[service.environment]\nTZ = \":" +
        kZone + "\"\n");
  }

  // A process with a picked id.
  static kl::test::RawPeer connected() {
    kl::test::RawPeer peer;
    EXPECT_TRUE(peer.connect());
    EXPECT_NE(peer.registerAs(0), 0u);
    return peer;
  }

  static std::optional<kl::message> ask(kl::test::RawPeer& peer, const kl::message& request) {
    if (!peer.send(request)) return {};
    return peer.receiveReply(request.get(kl::SYS_REQID, 0));
  }

  std::optional<kl::test::LoaderProcess> loader_;
};

}  // namespace kl_system
