#include "cloud/logic.h"
#include "core/owned.h"
#include "log_capture.h"
#include "settings_file.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

using testing::HasSubstr;

namespace {

class LogicSettingsTest : public testing::Test {
protected:
  LogicSettingsTest() { options.hardware_id = "SN-0123456789"; }
  ~LogicSettingsTest() override {
    release_settings(&settings);
    options.hardware_id = nullptr;
  }

  // The store with the four addresses and what the test adds.
  static void store(std::map<std::string, std::string> values) {
    values.insert({{"q_register_url", "https://cloud/register"},
                   {"q_claimed_url", "https://cloud/claimed"},
                   {"q_discovery_url", "https://cloud/discovery"},
                   {"q_advisor_url", "https://cloud/advisor"}});
    std::erase_if(values, [](const auto& entry) { return entry.second.empty(); });
    settings_file::fill(values);
  }

  // What the record holds now, empty for null.
  struct identity_text {
    std::string agent_id, hardware_id, claim_code;
    bool operator==(const identity_text&) const = default;
  };
  identity_text identity() {
    const auto text = [](const char* value) { return std::string{value != nullptr ? value : ""}; };
    DeviceIdentity held = copy_identity(&settings);
    identity_text result{text(held.agent_id), text(held.hardware_id), text(held.claim_code)};
    release_identity(&held);
    return result;
  }

  void hold(const char* agent_id, const char* claim_code) {
    const allocation_site site{"test", __LINE__, "", 1};
    replace_identity(&settings,
                     {must_copy_if_any(agent_id, site), nullptr, must_copy_if_any(claim_code, site)});
  }

  AgentSettings settings{};
};

TEST_F(LogicSettingsTest, DefaultsApplyToWhatIsNotSet) {
  store({});
  ASSERT_EQ(load_enrolment_settings(&settings), 0);
  EXPECT_EQ(settings.http_request_timeout, 60U);
  EXPECT_EQ(settings.http_connect_timeout, 300U);
  EXPECT_EQ(settings.register_delay, 60U);
  EXPECT_EQ(settings.discovery_delay, 60U);
  EXPECT_EQ(settings.claim_delay, 60U);
  EXPECT_EQ(settings.claim_check, 3600U);
  EXPECT_EQ(settings.advisor_delay, 60U);
  EXPECT_EQ(settings.qbroker_delay, 60U);
}

TEST_F(LogicSettingsTest, NumbersComeFromTheStore) {
  store({{"q_http_request_timeout", "1"},
         {"q_http_connect_timeout", "2"},
         {"q_register_delay", "3"},
         {"q_discovery_delay", "4"},
         {"q_claim_delay", "0"},
         {"q_claim_check", "6"},
         {"q_advisor_delay", "-7"},
         {"q_qbroker_delay", "8"}});
  ASSERT_EQ(load_enrolment_settings(&settings), 0);
  EXPECT_EQ(settings.http_request_timeout, 1U);
  EXPECT_EQ(settings.http_connect_timeout, 2U);
  EXPECT_EQ(settings.register_delay, 3U);
  EXPECT_EQ(settings.discovery_delay, 4U);
  EXPECT_EQ(settings.claim_delay, 0U);
  EXPECT_EQ(settings.claim_check, 6U);
  EXPECT_EQ(settings.advisor_delay, 60U) << "a negative number is none";
  EXPECT_EQ(settings.qbroker_delay, 8U);
}

TEST_F(LogicSettingsTest, AddressesGetTheVersionOfTheirExchange) {
  store({});
  ASSERT_EQ(load_enrolment_settings(&settings), 0);
  EXPECT_STREQ(settings.register_url, "https://cloud/register");
  EXPECT_STREQ(settings.claimed_url, "https://cloud/claimed/v2");
  EXPECT_STREQ(settings.discovery_url, "https://cloud/discovery/v3");
  EXPECT_STREQ(settings.advisor_url, "https://cloud/advisor/v2");
}

TEST_F(LogicSettingsTest, ALongAddressIsCutBeforeTheVersion) {
  store({{"q_advisor_url", std::string(200, 'x')}});
  ASSERT_EQ(load_enrolment_settings(&settings), 0);
  EXPECT_EQ(settings.advisor_url, std::string(127, 'x') + "/v2");
}

TEST_F(LogicSettingsTest, OneMissingAddressLeavesNone) {
  for (const char* missing : {"q_register_url", "q_claimed_url", "q_discovery_url", "q_advisor_url"}) {
    store({{missing, ""}});
    EXPECT_EQ(load_enrolment_settings(&settings), -1) << missing;
    EXPECT_EQ(settings.register_url, nullptr) << missing;
    EXPECT_EQ(settings.claimed_url, nullptr) << missing;
    EXPECT_EQ(settings.discovery_url, nullptr) << missing;
    EXPECT_EQ(settings.advisor_url, nullptr) << missing;
  }
}

TEST_F(LogicSettingsTest, IdentityComesFromStoreAndCommandLine) {
  store({{"q_agent_id", "AGENT-1"}, {"q_agent_claim_code", "code"}});
  ASSERT_EQ(load_enrolment_settings(&settings), 0);
  EXPECT_EQ(identity(), (identity_text{"AGENT-1", "SN-0123456789", "code"}));
  EXPECT_EQ(identity_complete(&settings), 1);
}

TEST_F(LogicSettingsTest, ReloadingTakesWhatTheStoreHoldsNow) {
  hold("OLD", "old");
  store({{"q_agent_claim_code", "new"}});
  reload_identity(&settings);
  EXPECT_EQ(identity(), (identity_text{"", "SN-0123456789", "new"}));
}

TEST_F(LogicSettingsTest, AnIdentityIsCompleteWithAValidAgentIdAndAClaimCode) {
  struct {
    const char* agent_id;
    const char* claim_code;
    int complete;
  } const cases[] = {
      {"A", "c", 1},         {"AZ-09", "any text", 1}, {"AZ-09", "", 1}, {nullptr, "c", 0}, {"A", nullptr, 0},
      {"", "c", 0},          {"lower", "c", 0},        {"A_1", "c", 0},  {"A 1", "c", 0},   {"AB\n", "c", 0},
      {nullptr, nullptr, 0},
  };
  for (const auto& test : cases) {
    hold(test.agent_id, test.claim_code);
    EXPECT_EQ(identity_complete(&settings), test.complete)
        << (test.agent_id != nullptr ? test.agent_id : "(null)");
  }
}

TEST_F(LogicSettingsTest, IdTextsHoldUpperCaseLettersDigitsAndHyphens) {
  struct {
    const char* text;
    int length;
    int valid;
    int valid_nonempty;
  } const cases[] = {
      {"ABCXYZ", 6, 1, 1}, {"0123456789-", 11, 1, 1},
      {"AbC", 3, 0, 0},    {"AbC", 1, 1, 1},
      {"A.", 2, 0, 0},     {"@", 1, 0, 0},
      {"[", 1, 0, 0},      {"/", 1, 0, 0},
      {":", 1, 0, 0},      {"\xc3\x84", 2, 0, 0},
      {"", 0, 1, 0},       {"a", 0, 1, 0},
      {"a", -1, 1, 1},     {"A", 2, 0, 0},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(valid_id_text(test.text, test.length), test.valid) << test.text << ' ' << test.length;
    EXPECT_EQ(valid_nonempty_id_text(test.text, test.length), test.valid_nonempty)
        << test.text << ' ' << test.length;
  }
}

TEST_F(LogicSettingsTest, SavingStoresAgentIdAndClaimCode) {
  store({{"q_agent_id", "OLD"}});
  hold("AGENT-2", "code 2");
  EXPECT_EQ(save_identity(&settings), 0);
  EXPECT_EQ(settings_file::value("q_agent_id"), "AGENT-2");
  EXPECT_EQ(settings_file::value("q_agent_claim_code"), "code 2");
}

TEST_F(LogicSettingsTest, SavingAnIncompleteIdentityStoresNothing) {
  store({{"q_agent_id", "OLD"}});
  hold("AGENT-2", nullptr);
  EXPECT_EQ(save_identity(&settings), -1);
  hold(nullptr, "code");
  EXPECT_EQ(save_identity(&settings), -1);
  EXPECT_EQ(settings_file::value("q_agent_id"), "OLD");
  EXPECT_EQ(settings_file::value("q_agent_claim_code"), "");
}

TEST_F(LogicSettingsTest, ModeSwitchesAreReadAndLoggedAtEachCall) {
  struct {
    const char* stored;
    int value;
  } const cases[] = {{"", 0}, {"0", 0}, {"1", 1}, {"2", 2}, {"-1", 0}};
  for (const auto& test : cases) {
    const std::string number = std::to_string(test.value);
    store({{"q_use_discovery", test.stored}});
    log_capture discovery_log;
    EXPECT_EQ(use_discovery(), test.value) << test.stored;
    EXPECT_THAT(discovery_log.text(),
                HasSubstr("DEBUG: Use discovery mechanism for qCloud: " + number + ".\n"));

    store({{"q_force_connection", test.stored}});
    log_capture force_log;
    EXPECT_EQ(force_connection(), test.value) << test.stored;
    EXPECT_THAT(force_log.text(), HasSubstr("DEBUG: Force connection to qCloud: " + number + ".\n"));
  }
}

}  // namespace
