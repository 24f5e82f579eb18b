#pragma once

#include "cloud/http_helper.h"
#include "cloud/http_helper_share.h"
#include "core/owned.h"
#include "log_capture.h"
#include "log_lines.h"
#include "settings_file.h"
#include "waiting.h"

#include <cstring>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <string>

namespace http_test {

/// The client as start-up leaves it, settings, and buffers for a reply.
class fixture : public testing::Test {
protected:
  fixture() {
    options.console_log = options.file_log = false;
    for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
      unsetenv(name);
    }
    curl_global_init(CURL_GLOBAL_ALL);
    EXPECT_EQ(init_shared_curl(), 0);
    settings.http_request_timeout = 60;
    settings.http_connect_timeout = 60;
    store.fill({});
  }
  ~fixture() override {
    resume_http_requests();
    clean_shared_curl();
    http_buffer_free(&headers);
    http_buffer_free(&reply);
    release_settings(&settings);
    options = saved_;
  }

  void identify(const char* agent_id, const char* claim_code) {
    static constexpr char log_source[] = "http_fixture";
    replace_identity(&settings, {must_copy_if_any(agent_id, ALLOCATION("strdup().\n", 1)),
                                 must_copy("HARDWARE", ALLOCATION("strdup().\n", 1)),
                                 must_copy_if_any(claim_code, ALLOCATION("strdup().\n", 1))});
  }
  void new_buffers() {
    http_buffer_free(&headers);
    http_buffer_free(&reply);
    headers = http_buffer_create();
    reply = http_buffer_create();
    status = -5;
  }
  int post(const std::string& url, const char* body = "{}") {
    new_buffers();
    return http_post_json(url.c_str(), &settings, body, &status, &headers, &reply);
  }
  int get(const std::string& url, const char* extra_header = nullptr) {
    new_buffers();
    return http_get_with_header(url.c_str(), &settings, extra_header, &status, &headers, &reply);
  }

  settings_file store;
  AgentSettings settings{};
  HttpBuffer headers = http_buffer_create();
  HttpBuffer reply = http_buffer_create();
  long status = -5;

private:
  agent_options saved_ = options;
};

}  // namespace http_test
