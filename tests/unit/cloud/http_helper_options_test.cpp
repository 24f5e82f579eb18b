#include "cloud/http_helper.h"
#include "cloud/http_helper_share.h"

#include "curl_probe.h"
#include "http_fixture.h"
#include "http_server.h"
#include "log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

namespace {

using http_test::answer;
using http_test::server;
using testing::HasSubstr;
using testing::StartsWith;
using text_list = std::vector<std::string>;

constexpr char use_proxy[] = "q_qcloud_use_proxy";
constexpr char proxy_host[] = "q_qcloud_proxy_hostname";
constexpr char proxy_port[] = "q_qcloud_proxy_port";
constexpr char proxy_user[] = "q_qcloud_proxy_username";
constexpr char proxy_password[] = "q_qcloud_proxy_password";

class HttpHelperOptions : public http_test::fixture {
protected:
  /// What a GET sets on its handle, with `values` in the settings store. No transfer takes place.
  text_list options_of_get(const std::map<std::string, std::string>& values) {
    store.fill(values);
    curl_probe probe;
    probe.answer_transfers(CURLE_OK);
    EXPECT_EQ(get("http://h/"), 0);
    return probe.options();
  }
  /// Only the options between the share and the write function: the proxy's.
  text_list proxy_options(const std::map<std::string, std::string>& values) {
    const text_list all = options_of_get(values);
    EXPECT_GE(all.size(), 6U);
    const auto first = all.begin() + 5;
    return {first, std::find(first, all.end(), "WRITEFUNCTION")};
  }
};

const text_list usual_options = {
    "NOPROGRESS=1", "NOSIGNAL=1", "TIMEOUT=7",        "CONNECTTIMEOUT=8", "SHARE",        "WRITEFUNCTION",
    "HEADERDATA",   "WRITEDATA",  "SSL_VERIFYHOST=2", "SSL_VERIFYPEER=0", "SSLVERSION=6", "URL=http://h/"};

TEST_F(HttpHelperOptions, AreSetInTheirOrder) {
  settings.http_request_timeout = 7;
  settings.http_connect_timeout = 8;
  EXPECT_EQ(options_of_get({}), usual_options);
  EXPECT_EQ(options_of_get({{use_proxy, "0"}, {proxy_host, "p"}, {proxy_port, "1"}}), usual_options);
  EXPECT_EQ(options_of_get({{use_proxy, "-1"}, {proxy_host, "p"}, {proxy_port, "1"}}), usual_options);
}

TEST_F(HttpHelperOptions, TimeOutsAreCutToWhatTheLibraryCounts) {
  for (const uint32_t seconds : {uint32_t{INT32_MAX / 1000}, uint32_t{INT32_MAX / 1000} + 1, UINT32_MAX}) {
    settings.http_request_timeout = settings.http_connect_timeout = seconds;
    const text_list set = options_of_get({});
    EXPECT_THAT(set, testing::IsSupersetOf({"TIMEOUT=2147483", "CONNECTTIMEOUT=2147483"})) << seconds;
  }
}

TEST_F(HttpHelperOptions, OfAPostEndWithHeadersAndBody) {
  curl_probe probe;
  probe.answer_transfers(CURLE_OK);
  EXPECT_EQ(post("http://h/"), 0);
  const text_list without_identity = probe.options();
  identify("ID", "CODE");
  EXPECT_EQ(post("http://h/"), 0);
  const text_list both = probe.options();

  const text_list end = {"URL=http://h/", "HTTPHEADER=Content-Type: application/json", "POSTFIELDS"};
  EXPECT_EQ(text_list(without_identity.end() - 3, without_identity.end()), end);
  EXPECT_EQ(text_list(both.end() - 4, both.end() - 1), end);
  EXPECT_EQ(both.back(), "HTTPHEADER=Content-Type: application/json|Authorization: ID:CODE");
}

TEST_F(HttpHelperOptions, OfAGetHaveHeadersOnlyWhenThereAreSome) {
  curl_probe probe;
  probe.answer_transfers(CURLE_OK);
  EXPECT_EQ(get("http://h/", "X-Carrier-ID: 1"), 0);
  EXPECT_EQ(probe.options().back(), "HTTPHEADER=X-Carrier-ID: 1");
  identify("ID", "CODE");
  EXPECT_EQ(get("http://h/"), 0);
  EXPECT_EQ(probe.options().back(), "HTTPHEADER=Authorization: ID:CODE");
}

struct ca_case {
  const char* path;
  const char* file;
  text_list expected;
};

TEST_F(HttpHelperOptions, PeerIsVerifiedWithACaOnly) {
  const ca_case cases[] = {
      {nullptr, nullptr, {"SSL_VERIFYHOST=2", "SSL_VERIFYPEER=0"}},
      {"/ca", nullptr, {"CAPATH=/ca", "SSL_VERIFYHOST=2", "SSL_VERIFYPEER=1"}},
      {nullptr, "/ca.pem", {"CAINFO=/ca.pem", "SSL_VERIFYHOST=2", "SSL_VERIFYPEER=1"}},
      {"/ca", "/ca.pem", {"CAPATH=/ca", "CAINFO=/ca.pem", "SSL_VERIFYHOST=2", "SSL_VERIFYPEER=1"}},
  };
  for (const ca_case& c : cases) {
    options.ca_path = c.path;
    options.ca_file = c.file;
    const text_list all = options_of_get({});
    const auto first = std::find(all.begin(), all.end(), "WRITEDATA") + 1;
    EXPECT_EQ(text_list(first, std::find(first, all.end(), "SSLVERSION=6")), c.expected);
  }
}

struct proxy_case {
  const char* kind;
  text_list expected;
};

TEST_F(HttpHelperOptions, ProxyKindDecides) {
  ASSERT_EQ(CURLPROXY_HTTP, 0);
  ASSERT_EQ(CURLPROXY_SOCKS4, 4);
  ASSERT_EQ(CURLPROXY_SOCKS5, 5);
  const std::string any = "PROXYAUTH=" + std::to_string(static_cast<long>(CURLAUTH_ANY));
  const proxy_case cases[] = {
      {"1", {"PROXY=proxy.example:8080", "PROXYTYPE=0", any}},
      {"2", {"PROXY=proxy.example:8080", "PROXY=127.0.0.1:3128", "PROXYTYPE=0"}},
      {"3", {"PROXY=proxy.example:8080", "PROXYTYPE=4"}},
      {"4", {"PROXY=proxy.example:8080", "PROXYTYPE=5"}},
      {"5", {"PROXY=proxy.example:8080"}},
      {"99", {"PROXY=proxy.example:8080"}},
  };
  for (const proxy_case& c : cases) {
    EXPECT_EQ(proxy_options({{use_proxy, c.kind}, {proxy_host, "proxy.example"}, {proxy_port, "8080"}}),
              c.expected)
        << c.kind;
    text_list with_user = c.expected;
    with_user.emplace_back("PROXYUSERPWD=me:secret");
    EXPECT_EQ(proxy_options({{use_proxy, c.kind},
                             {proxy_host, "proxy.example"},
                             {proxy_port, "8080"},
                             {proxy_user, "me"},
                             {proxy_password, "secret"}}),
              with_user)
        << c.kind;
  }
}

TEST_F(HttpHelperOptions, WithoutProxyHostOrPortThereIsNoProxy) {
  const std::map<std::string, std::string> cases[] = {
      {},
      {{proxy_host, "proxy.example"}},
      {{proxy_port, "8080"}},
      {{proxy_host, ""}, {proxy_port, "8080"}},
  };
  for (const char* kind : {"1", "2", "3", "4", "5"}) {
    for (std::map<std::string, std::string> values : cases) {
      values[use_proxy] = kind;
      {
        log_capture log;
        EXPECT_EQ(proxy_options(values), text_list{});
        // No line end: the next line follows at once.
        EXPECT_THAT(log.text(), HasSubstr("WARNING: Could not get proxy address/proxy port values from config"
                                          "http_helper: "));
      }
      values[proxy_user] = "me";
      values[proxy_password] = "secret";
      EXPECT_EQ(proxy_options(values), text_list{"PROXYUSERPWD=me:secret"});
    }
  }
}

TEST_F(HttpHelperOptions, ProxyCredentialsNeedUserAndPassword) {
  for (const char* present : {proxy_user, proxy_password}) {
    EXPECT_EQ(proxy_options({{use_proxy, "3"}, {proxy_host, "p"}, {proxy_port, "1"}, {present, "x"}}),
              (text_list{"PROXY=p:1", "PROXYTYPE=4"}));
  }
}

TEST_F(HttpHelperOptions, LongProxyCredentialsFit) {
  const std::string user(127, 'u');  // the settings store gives at most 127 characters
  const std::string password(127, 'p');
  EXPECT_EQ(proxy_options({{use_proxy, "3"},
                           {proxy_host, "p"},
                           {proxy_port, "1"},
                           {proxy_user, user + "more"},
                           {proxy_password, password + "more"}})
                .back(),
            "PROXYUSERPWD=" + user + ":" + password);
}

TEST_F(HttpHelperOptions, RequestsGoThroughTheHttpProxy) {
  const server proxy{answer(200, "through")};
  for (const char* kind : {"1", "5"}) {
    store.fill({{use_proxy, kind}, {proxy_host, "127.0.0.1"}, {proxy_port, proxy.port()}});
    EXPECT_EQ(get("http://cloud.invalid/v2"), 0);
    EXPECT_STREQ(reply.text, "through");
    EXPECT_THAT(proxy.requests().back(), StartsWith("GET http://cloud.invalid/v2 HTTP/1.1\r\n"));
  }
}

TEST_F(HttpHelperOptions, RequestsGoThroughTheSocksProxy) {
  const server proxy{std::string{"\x00\x5b\x00\x00\x00\x00\x00\x00", 8}};  // refuses everything
  const std::map<std::string, char> version_of_kind = {{"3", '\x04'}, {"4", '\x05'}};
  for (const auto& [kind, version] : version_of_kind) {
    store.fill({{use_proxy, kind}, {proxy_host, "127.0.0.1"}, {proxy_port, proxy.port()}});
    EXPECT_EQ(get("http://127.0.0.1/"), -1);
    EXPECT_EQ(proxy.requests().back()[0], version);
  }
}

TEST_F(HttpHelperOptions, ShareIsAttachedToEachRequest) {
  ASSERT_NE(shared_curl(), nullptr);
  curl_probe probe;
  probe.fail_share_cleanup();
  log_capture log;
  clean_shared_curl();
  EXPECT_THAT(log.text(), HasSubstr("WARNING: clean_shared_curl: error cleaning up the share structure\n"));
  EXPECT_EQ(shared_curl(), nullptr);
}

class HttpHelperShare : public testing::Test {
protected:
  HttpHelperShare() { curl_global_init(CURL_GLOBAL_ALL); }
  ~HttpHelperShare() override { clean_shared_curl(); }
};

TEST_F(HttpHelperShare, SharesDnsAndTlsSessions) {
  const curl_probe probe;
  log_capture log;
  EXPECT_EQ(init_shared_curl(), 0);
  const std::string logged = log.text();
  EXPECT_EQ(probe.options(), (text_list{"share " + std::to_string(CURL_LOCK_DATA_DNS),
                                        "share " + std::to_string(CURL_LOCK_DATA_SSL_SESSION)}));
  EXPECT_NE(probe.lock_callback(), nullptr);
  EXPECT_NE(probe.unlock_callback(), nullptr);
  EXPECT_EQ(count_of(logged, "  DEBUG: curl_share_init...\n"), 1U);
  EXPECT_EQ(count_of(logged, "  DEBUG: curl_share_setopt...\n"), 4U);
  EXPECT_EQ(count_of(logged, "  DEBUG: init_shared_curl END\n"), 1U);
}

TEST_F(HttpHelperShare, InitFailsWithoutAShare) {
  curl_probe probe;
  probe.fail_share_init();
  log_capture log;
  EXPECT_EQ(init_shared_curl(), -1);
  EXPECT_THAT(log.text(), HasSubstr("WARNING: init_shared_curl: error initializing the share structure\n"));
  EXPECT_EQ(shared_curl(), nullptr);
}

TEST_F(HttpHelperShare, InitStopsAtTheFirstRefusedSetting) {
  const char* const texts[] = {
      "WARNING: init_shared_curl: error setting the curl share lock function 1(Unknown share option)\n",
      "WARNING: init_shared_curl: error setting the curl share unlock function 1(Unknown share option)\n",
      "WARNING: init_shared_curl: error enabling curl dns sharing 1(Unknown share option)\n",
  };
  for (int position = 1; position <= 3; ++position) {
    curl_probe probe;
    probe.refuse_share_option(position);
    log_capture log;
    EXPECT_EQ(init_shared_curl(), -1);
    const std::string logged = log.text();
    EXPECT_THAT(logged, HasSubstr(texts[position - 1]));
    EXPECT_EQ(count_of(logged, "curl_share_setopt...\n"), static_cast<size_t>(position));
    EXPECT_EQ(count_of(logged, "WARNING"), 1U);
    EXPECT_NE(shared_curl(), nullptr);  // it stays
    clean_shared_curl();
    curl_global_init(CURL_GLOBAL_ALL);
  }
}

TEST_F(HttpHelperShare, RefusedSessionSharingIsPrintedInsteadOfLogged) {
  curl_probe probe;
  probe.refuse_share_option(4);
  log_capture log;
  testing::internal::CaptureStdout();
  EXPECT_EQ(init_shared_curl(), -1);
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "init_shared_curl: error enabling curl ssl session sharing 1(Unknown share option)\n");
  const std::string logged = log.text();
  EXPECT_EQ(count_of(logged, "session sharing"), 0U);
  EXPECT_EQ(count_of(logged, "init_shared_curl END"), 0U);
  EXPECT_NE(shared_curl(), nullptr);
}

TEST_F(HttpHelperShare, EachKindOfDataHasItsMutex) {
  const curl_probe probe;
  ASSERT_EQ(init_shared_curl(), 0);
  const auto lock = [&](curl_lock_data data) {
    probe.lock_callback()(nullptr, data, CURL_LOCK_ACCESS_SHARED, nullptr);
  };
  const auto unlock = [&](curl_lock_data data) { probe.unlock_callback()(nullptr, data, nullptr); };

  // Four mutexes: this would hang if two kinds had one.
  const curl_lock_data kinds[] = {CURL_LOCK_DATA_SHARE, CURL_LOCK_DATA_COOKIE, CURL_LOCK_DATA_DNS,
                                  CURL_LOCK_DATA_SSL_SESSION};
  for (const curl_lock_data kind : kinds) {
    lock(kind);
  }
  for (const curl_lock_data kind : kinds) {
    unlock(kind);
  }
  // The rest go with the cookies: this would hang if they did not give back the cookies' mutex.
  for (const curl_lock_data kind : {CURL_LOCK_DATA_CONNECT, CURL_LOCK_DATA_PSL, CURL_LOCK_DATA_HSTS,
                                    CURL_LOCK_DATA_NONE, CURL_LOCK_DATA_COOKIE}) {
    lock(CURL_LOCK_DATA_COOKIE);
    unlock(kind);
  }
}

TEST_F(HttpHelperShare, CallbacksDoNothingWithoutAShare) {
  const curl_probe probe;
  ASSERT_EQ(init_shared_curl(), 0);
  clean_shared_curl();
  curl_global_init(CURL_GLOBAL_ALL);
  for (int i = 0; i < 2; ++i) {  // a second lock would hang
    probe.lock_callback()(nullptr, CURL_LOCK_DATA_DNS, CURL_LOCK_ACCESS_SINGLE, nullptr);
  }
  probe.unlock_callback()(nullptr, CURL_LOCK_DATA_DNS, nullptr);
}

TEST_F(HttpHelperShare, CleaningWithoutAShareIsHarmless) {
  clean_shared_curl();
  curl_global_init(CURL_GLOBAL_ALL);
  EXPECT_EQ(shared_curl(), nullptr);
}

}  // namespace
