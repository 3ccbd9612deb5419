#include "tools/klctl/verbs/metrics.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"

namespace klctl {
namespace {

kl::message serviceRow(unsigned int id, const std::string& name) {
  kl::message row;
  row.insert(kl::STD_ID, id);
  row.insert(kl::SVC_NAME, name);
  row.insert(kl::SVC_STATE, kl::SVC_STATE_DELAYED);
  row.insert(kl::SVC_STARTS, 3);
  row.insert(kl::SVC_MESSAGES_IN, 11ull);
  row.insert(kl::SVC_MESSAGES_OUT, 12ull);
  row.insert(kl::SVC_BYTES_IN, 13ull);
  row.insert(kl::SVC_BYTES_OUT, 14ull);
  row.insert(kl::SVC_DROPS, 15ull);
  row.insert(kl::SVC_DENIALS, 16ull);
  row.insert(kl::SVC_QUEUE, 17);
  row.insert(kl::SVC_REQUESTS, 18);
  row.insert(kl::SVC_OLDEST, 1900ull);
  return row;
}

kl::message loaderRow() {
  kl::message row = serviceRow(kl::SERVICE_LOADER, "loader");
  row.insert(kl::SVC_ALL_MESSAGES_IN, 21ull);
  row.insert(kl::SVC_ALL_MESSAGES_OUT, 22ull);
  row.insert(kl::SVC_ALL_BYTES_IN, 23ull);
  row.insert(kl::SVC_ALL_BYTES_OUT, 24ull);
  row.insert(kl::SVC_ALL_DROPS, 25ull);
  row.insert(kl::SVC_ALL_DENIALS, 26ull);
  row.insert(kl::SVC_CONNECTIONS, 27ull);
  return row;
}

// The output of klctl for a loader with a configured service and a stranger, and whether it has each of the lines.
class MetricsVerb : public testing::Test {
 protected:
  std::string run() {
    kl::message netif = serviceRow(32, "netif");
    netif.insert(kl::SVC_CONFIGURED, true);
    kl::message reply;
    reply.insert(kl::STD_OBJS,
                 {loaderRow().flattened(), netif.flattened(), serviceRow(0x10000, "stranger").flattened()});
    RecordedChannels channels([&](const kl::message& request) {
      EXPECT_EQ(request.get(kl::SYS_CMD, 0), kl::CMD_GETALL);
      ++asked_;
      return reply;
    });
    return channels.perform(parsed({"metrics"}));
  }

  unsigned int asked_ = 0;
};

TEST_F(MetricsVerb, ShowsEveryFigureOfAConfiguredService) {
  const std::string text = run();
  for (const char* line :
       {"kelo_in_messages_total{service=\"netif\"} 11\n", "kelo_out_messages_total{service=\"netif\"} 12\n",
        "kelo_in_bytes_total{service=\"netif\"} 13\n", "kelo_out_bytes_total{service=\"netif\"} 14\n",
        "kelo_drops_total{service=\"netif\"} 15\n", "kelo_denials_total{service=\"netif\"} 16\n",
        "kelo_starts_total{service=\"netif\"} 3\n", "kelo_state{service=\"netif\"} 5\n",
        "kelo_queue_bytes{service=\"netif\"} 17\n", "kelo_requests{service=\"netif\"} 18\n",
        "kelo_oldest_request_seconds{service=\"netif\"} 1.900\n"})
    EXPECT_NE(text.find(line), std::string::npos) << line << text;
  EXPECT_EQ(asked_, 1u);
}

TEST_F(MetricsVerb, ShowsTheSumsOfTheLoadersRow) {
  const std::string text = run();
  for (const char* line :
       {"kelo_all_in_messages_total 21\n", "kelo_all_out_messages_total 22\n", "kelo_all_in_bytes_total 23\n",
        "kelo_all_out_bytes_total 24\n", "kelo_all_drops_total 25\n", "kelo_all_denials_total 26\n",
        "kelo_connections_total 27\n", "kelo_all_queue_bytes 51\n", "kelo_all_requests 54\n"})
    EXPECT_NE(text.find(line), std::string::npos) << line << text;
}

TEST_F(MetricsVerb, TheLoaderHasLinesAndStrangersAreANumber) {
  const std::string text = run();
  EXPECT_NE(text.find("kelo_state{service=\"loader\"} 5\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("stranger"), std::string::npos) << text;
  EXPECT_NE(text.find("kelo_other_services 1\n"), std::string::npos) << text;
}

TEST(MetricsWords, AFormatOfItsOwnIsNotJson) {
  for (const char* option : {"--json", "--dump", "--secrets"})
    EXPECT_EQ(failureOf([&] {
                (void)parsed({"metrics", option});
              }).status,
              static_cast<int>(Status::kUsage))
        << option;
}

}  // namespace
}  // namespace klctl
