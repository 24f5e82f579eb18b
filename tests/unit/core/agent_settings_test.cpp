#include "core/agent_settings.h"

#include "core/owned.h"

#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace {

char* fresh(const char* text) {
  return must_copy(text, {"test", 0, "strdup().\n", 1});
}

TEST(ReleaseTest, FreesAndNullsAndIsHarmlessTwice) {
  DeviceIdentity identity{fresh("a"), fresh("h"), fresh("c")};
  AdvisorReply reply{advisor_connect, fresh("host"), -1, 0, fresh("token")};
  DiscoveryParams params{fresh("s"), 1, fresh("i"), fresh("d"), fresh("c")};
  for (int i = 0; i < 2; ++i) {
    release_identity(&identity);
    release_advisor_reply(&reply);
    release_discovery_params(&params);
  }
  EXPECT_EQ(identity.agent_id, nullptr);
  EXPECT_EQ(identity.hardware_id, nullptr);
  EXPECT_EQ(identity.claim_code, nullptr);
  EXPECT_EQ(reply.broker_host, nullptr);
  EXPECT_EQ(reply.token, nullptr);
  EXPECT_EQ(params.service_id, nullptr);
  EXPECT_EQ(params.discovery_id, nullptr);
  EXPECT_EQ(params.discovery_data, nullptr);
  EXPECT_EQ(params.carrier_id, nullptr);
}

TEST(IdentityTest, CopiesAreIndependentOfTheRecord) {
  AgentSettings settings{};
  replace_identity(&settings, {fresh("agent"), nullptr, fresh("code")});
  DeviceIdentity copy = copy_identity(&settings);
  replace_identity(&settings, {});
  EXPECT_STREQ(copy.agent_id, "agent");
  EXPECT_EQ(copy.hardware_id, nullptr);
  EXPECT_STREQ(copy.claim_code, "code");
  release_identity(&copy);
}

TEST(CarrierIdTest, IsReplacedAndCopied) {
  AgentSettings settings{};
  EXPECT_EQ(copy_carrier_id(&settings), nullptr);
  replace_carrier_id(&settings, fresh("one"));
  replace_carrier_id(&settings, fresh("two"));
  const c_string copy{copy_carrier_id(&settings)};
  EXPECT_STREQ(copy.get(), "two");
  replace_carrier_id(&settings, nullptr);
  EXPECT_EQ(copy_carrier_id(&settings), nullptr);
}

TEST(CarrierIdTest, MayBeReplacedWhileOthersCopyIt) {
  AgentSettings settings{};
  std::thread writer{[&] {
    for (int i = 0; i < 1000; ++i) {
      replace_carrier_id(&settings, fresh(i % 2 == 0 ? "even" : "odd"));
    }
  }};
  for (int i = 0; i < 1000; ++i) {
    const c_string copy{copy_carrier_id(&settings)};
    if (!copy) continue;
    EXPECT_TRUE(std::string{copy.get()} == "even" || std::string{copy.get()} == "odd");
  }
  writer.join();
  release_settings(&settings);
}

TEST(SettingsTest, ReleaseFreesEveryStringAndIsHarmlessTwice) {
  AgentSettings settings{};
  char** const fields[] = {&settings.register_url, &settings.claimed_url,  &settings.discovery_url,
                           &settings.advisor_url,  &settings.pid_file,     &settings.watchdog_pid_file,
                           &settings.service_id,   &settings.discovery_id, &settings.discovery_data};
  for (char** field : fields) {
    *field = fresh("text");
  }
  replace_identity(&settings, {fresh("a"), fresh("h"), fresh("c")});
  replace_carrier_id(&settings, fresh("carrier"));
  release_settings(&settings);
  release_settings(&settings);
  for (char** field : fields) {
    EXPECT_EQ(*field, nullptr);
  }
  EXPECT_EQ(copy_carrier_id(&settings), nullptr);
  DeviceIdentity identity = copy_identity(&settings);
  EXPECT_EQ(identity.agent_id, nullptr);
  EXPECT_EQ(identity.hardware_id, nullptr);
  EXPECT_EQ(identity.claim_code, nullptr);
}

}  // namespace
