#pragma once

#include "cloud/http_helper.h"
#include "cloud/logic_state.h"
#include "core/owned.h"
#include "fake_cloud.h"
#include "fake_delivery.h"
#include "log_capture.h"
#include "settings_file.h"

#include <gtest/gtest.h>
#include <map>
#include <string>

/// Settings, state record and HTTP client as start-up leaves them on an unclaimed device without a session.
class control_fixture : public testing::Test {
protected:
  control_fixture() {
    options.console_log = false;
    store({});
    orvel_state_init(0);
    fake_delivery::take();
    fakes = {};
    keep_connection = 0;
    replace_identity(&settings, {copy_of("AGENT-1"), copy_of("SN-0123456789"), copy_of("code-1")});
  }
  ~control_fixture() override {
    resume_http_requests();
    set_claimed(0);
    fake_delivery::take();
    release_settings(&settings);
    options.console_log = true;
  }

  static void store(const std::map<std::string, std::string>& values) { settings_file::fill(values); }

  static char* copy_of(const char* text) {
    return must_copy_if_any(text, allocation_site{"test", __LINE__, "", 1});
  }

  std::string carrier_id() {
    const c_string held{copy_carrier_id(&settings)};
    return held ? held.get() : "(none)";
  }

  AgentSettings settings{};
};
