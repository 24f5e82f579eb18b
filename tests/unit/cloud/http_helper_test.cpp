#include "cloud/http_helper.h"

#include "curl_probe.h"
#include "http_fixture.h"
#include "http_server.h"
#include "log_capture.h"
#include "sanitizers.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using http_test::answer;
using http_test::server;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class HttpHelper : public http_test::fixture {
protected:
  /// Two failures of one request each: the result of the POST, then of the GET.
  std::vector<int> results_for(const std::string& url) { return {post(url), get(url)}; }
};

TEST_F(HttpHelper, NewBufferHoldsTheEmptyText) {
  HttpBuffer buffer = http_buffer_create();
  EXPECT_STREQ(buffer.text, "");
  EXPECT_EQ(buffer.length, 0U);
  http_buffer_free(&buffer);
  EXPECT_EQ(buffer.text, nullptr);
  http_buffer_free(&buffer);
}

TEST_F(HttpHelper, PostSendsTheBodyAsJsonAndCollectsTheReply) {
  const server cloud{answer(201, "created")};
  EXPECT_EQ(post(cloud.url(), "{\"a\":1}"), 0);
  EXPECT_EQ(status, 201);
  EXPECT_STREQ(reply.text, "created");
  EXPECT_EQ(reply.length, 7U);
  EXPECT_THAT(headers.text, StartsWith("HTTP/1.1 201 Word\r\nX-Test: yes\r\n"));
  EXPECT_EQ(headers.length, std::strlen(headers.text));
  ASSERT_EQ(cloud.requests().size(), 1U);
  const std::string request = cloud.requests()[0];
  EXPECT_THAT(request, StartsWith("POST /v1 HTTP/1.1\r\n"));
  EXPECT_THAT(request, HasSubstr("\r\nContent-Type: application/json\r\n"));
  EXPECT_THAT(request, Not(HasSubstr("Authorization")));
  EXPECT_THAT(request, testing::EndsWith("\r\n\r\n{\"a\":1}"));
}

TEST_F(HttpHelper, GetSendsNeitherBodyNorContentType) {
  const server cloud{answer(200, "text")};
  log_capture log;
  EXPECT_EQ(get(cloud.url()), 0);
  EXPECT_EQ(status, 200);
  EXPECT_STREQ(reply.text, "text");
  ASSERT_EQ(cloud.requests().size(), 1U);
  const std::string request = cloud.requests()[0];
  EXPECT_THAT(request, StartsWith("GET /v1 HTTP/1.1\r\n"));
  EXPECT_THAT(request, Not(HasSubstr("Content-Type")));
  EXPECT_THAT(request, Not(HasSubstr("Authorization")));
  EXPECT_THAT(request, testing::EndsWith("\r\n\r\n"));
  const std::string logged = log.text();
  for (const char* step : {"Setup URL for CURL handle.\n", "Performing CURL request.\n",
                           "CURL request was successfully performed.\n", "Deleting CURL handle.\n"}) {
    EXPECT_THAT(logged, HasSubstr(std::string{"  DEBUG: "} + step));
  }
}

TEST_F(HttpHelper, GetWithoutExtraHeaderIsTheSameRequest) {
  const server cloud{answer(204, "")};
  EXPECT_EQ(http_get(cloud.url().c_str(), &settings, &status, &headers, &reply), 0);
  EXPECT_EQ(get(cloud.url()), 0);
  ASSERT_EQ(cloud.requests().size(), 2U);
  EXPECT_EQ(cloud.requests()[0], cloud.requests()[1]);
}

TEST_F(HttpHelper, GetSendsTheExtraHeaderLine) {
  const server cloud{answer(200, "")};
  identify("ID", "CODE");
  log_capture log;
  EXPECT_EQ(get(cloud.url(), "X-Carrier-ID: c-7"), 0);
  EXPECT_THAT(cloud.requests()[0], HasSubstr("\r\nAuthorization: ID:CODE\r\nX-Carrier-ID: c-7\r\n"));
  EXPECT_THAT(log.text(), HasSubstr("  DEBUG: appending additional header X-Carrier-ID: c-7.\n"));
}

struct identity_case {
  const char* agent_id;
  const char* claim_code;
  const char* line;  ///< null: no line
};

TEST_F(HttpHelper, AuthorizationNeedsAgentIdAndClaimCode) {
  constexpr identity_case cases[] = {
      {"ID", "CODE", "\r\nAuthorization: ID:CODE\r\n"},
      {"", "", "\r\nAuthorization: :\r\n"},
      {"ID", nullptr, nullptr},
      {nullptr, "CODE", nullptr},
      {nullptr, nullptr, nullptr},
  };
  for (const identity_case& c : cases) {
    const server cloud{answer(200, "")};
    identify(c.agent_id, c.claim_code);
    ASSERT_EQ(post(cloud.url()), 0);
    ASSERT_EQ(get(cloud.url()), 0);
    ASSERT_EQ(cloud.requests().size(), 2U);
    for (const std::string& request : cloud.requests()) {
      if (c.line != nullptr) {
        EXPECT_THAT(request, HasSubstr(c.line));
      } else {
        EXPECT_THAT(request, Not(HasSubstr("Authorization")));
      }
    }
  }
}

TEST_F(HttpHelper, LongCredentialsAreCut) {
  const server cloud{answer(200, "")};
  identify(std::string(200, 'i').c_str(), std::string(200, 'c').c_str());
  ASSERT_EQ(post(cloud.url()), 0);
  ASSERT_EQ(get(cloud.url()), 0);
  // 255 bytes in all: 15 of the field's name and blank, 200 of the id, the colon, and what is left.
  const std::string line =
      "\r\nAuthorization: " + std::string(200, 'i') + ":" + std::string(39, 'c') + "\r\n";
  EXPECT_THAT(cloud.requests()[0], HasSubstr(line));
  EXPECT_THAT(cloud.requests()[1], HasSubstr(line));
}

TEST_F(HttpHelper, EveryStatusIsASuccess) {
  for (const int code : {200, 204, 302, 404, 500, 503}) {
    const server cloud{answer(code, code == 204 ? "" : "body")};
    EXPECT_EQ(post(cloud.url()), 0) << code;
    EXPECT_EQ(status, code);
    EXPECT_EQ(get(cloud.url()), 0) << code;
    EXPECT_EQ(status, code);
  }
}

TEST_F(HttpHelper, EmptyReplyLeavesTheEmptyText) {
  const server cloud{answer(200, "")};
  ASSERT_EQ(get(cloud.url()), 0);
  EXPECT_STREQ(reply.text, "");
  EXPECT_EQ(reply.length, 0U);
}

TEST_F(HttpHelper, RefusedConnectionIsToldApartByPostOnly) {
  std::string url;
  {
    const loopback_listener closed_soon;
    url = "http://127.0.0.1:" + std::to_string(closed_soon.port()) + "/";
  }
  EXPECT_EQ(results_for(url), (std::vector<int>{http_unconnected, -1}));
  EXPECT_EQ(status, -5);
}

TEST_F(HttpHelper, UnknownHostIsToldApartByPostOnly) {
  EXPECT_EQ(results_for("http://no-such-host.invalid/"), (std::vector<int>{http_unresolved, -1}));
}

TEST_F(HttpHelper, MissingAnswerIsToldApartByPostOnly) {
  const server silent{""};
  settings.http_request_timeout = 1;
  EXPECT_EQ(results_for(silent.url()), (std::vector<int>{http_timed_out, -1}));
  EXPECT_EQ(silent.requests().size(), 2U);
  EXPECT_EQ(status, -5);
}

TEST_F(HttpHelper, MissingConnectionTimesOut) {
  const loopback_listener full{AF_INET, 0};  // nobody accepts, and the queue is soon full
  const sockaddr_in address = loopback(full.port());
  std::vector<fd_owner> queued;
  for (int i = 0; i < 4; ++i) {
    queued.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    (void)connect(queued.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }
  settings.http_connect_timeout = 1;
  EXPECT_EQ(results_for("http://127.0.0.1:" + std::to_string(full.port())),
            (std::vector<int>{http_timed_out, -1}));
}

TEST_F(HttpHelper, FailuresAreLoggedAsErrorAndAsEvent) {
  curl_probe probe;
  probe.answer_transfers(CURLE_GOT_NOTHING);
  log_capture log;
  EXPECT_EQ(results_for("http://h/p"), (std::vector<int>{http_post_failed, -1}));
  const std::string logged = log.text();
  const std::string post_text = "curl_easy_perform(url='http://h/p') failed with error code 52: "
                                "'Server returned nothing (no headers, no data)'.\n";
  const std::string get_text = "curl_easy_perform(url='http://h/p') failed with code 52: "
                               "'Server returned nothing (no headers, no data)'.\n";
  for (const std::string& text : {post_text, get_text}) {
    EXPECT_EQ(count_of(logged, "WARNING: " + text), 1U) << logged;
    EXPECT_EQ(count_of(logged, "  ERROR: " + text), 1U) << logged;
  }
  EXPECT_THAT(logged, Not(HasSubstr("successfully performed")));
  EXPECT_EQ(count_of(logged, "Deleting CURL handle.\n"), 1U);
}

struct result_case {
  CURLcode code;
  int post_result;
};

TEST_F(HttpHelper, TransferResultsBecomeCodes) {
  constexpr result_case cases[] = {
      {CURLE_OK, 0},
      {CURLE_COULDNT_RESOLVE_HOST, -7},
      {CURLE_COULDNT_CONNECT, -8},
      {CURLE_OPERATION_TIMEDOUT, -4},
      {CURLE_COULDNT_RESOLVE_PROXY, 1},
      {CURLE_WRITE_ERROR, 1},
      {CURLE_SSL_CONNECT_ERROR, 1},
      {CURLE_PEER_FAILED_VERIFICATION, 1},
      {CURLE_UNSUPPORTED_PROTOCOL, 1},
  };
  for (const result_case& c : cases) {
    curl_probe probe;
    probe.answer_transfers(c.code);
    EXPECT_EQ(post("http://h/"), c.post_result) << c.code;
    EXPECT_EQ(get("http://h/"), c.code == CURLE_OK ? 0 : -1) << c.code;
  }
}

TEST_F(HttpHelper, MissingHandleIsLoggedAsErrorAndAsEvent) {
  curl_probe probe;
  probe.fail_easy_init();
  log_capture log;
  EXPECT_EQ(results_for("http://h/p"), (std::vector<int>{http_post_failed, -1}));
  const std::string logged = log.text();
  EXPECT_EQ(count_of(logged, "WARNING: curl initialization error.\n"), 2U) << logged;
  EXPECT_EQ(count_of(logged, "  ERROR: curl initialization error. url='http://h/p'\n"), 2U) << logged;
  EXPECT_THAT(probe.options(), IsEmpty());
}

TEST_F(HttpHelper, NoRequestIsMadeWithoutTls12) {
  const server cloud{answer(200, "")};
  curl_probe probe;
  probe.refuse_option(CURLOPT_SSLVERSION);
  log_capture log;
  EXPECT_EQ(results_for(cloud.url()), (std::vector<int>{http_post_failed, -1}));
  const std::string logged = log.text();
  EXPECT_EQ(count_of(logged, "WARNING: Can not enforce curl to TLS v1.2 or later\n"), 2U) << logged;
  EXPECT_EQ(count_of(logged, "WARNING: curl initialization error.\n"), 2U) << logged;
  EXPECT_THAT(cloud.requests(), IsEmpty());
}

TEST_F(HttpHelper, ReplyOfMoreThan16MebibytesAborts) {
  constexpr size_t most = size_t{16} * 1024 * 1024;
  const server cloud{answer(200, "0123456789")};
  const auto request_with_room_for = [&](size_t room) {
    new_buffers();
    reply.length = most - room;
    reply.text = static_cast<char*>(std::realloc(reply.text, most));
    std::memset(reply.text, 'x', reply.length);
    return http_post_json(cloud.url().c_str(), &settings, "{}", &status, &headers, &reply);
  };
  EXPECT_EQ(request_with_room_for(10), 0);
  EXPECT_EQ(reply.length, most);
  EXPECT_STREQ(reply.text + most - 11, "x0123456789");

  log_capture log;
  EXPECT_EQ(request_with_room_for(9), http_post_failed);
  const std::string logged = log.text();
  EXPECT_EQ(count_of(logged, "WARNING: not enough memory (realloc returned NULL).\n"), 1U) << logged;
  EXPECT_THAT(logged, HasSubstr("failed with error code 23: "));
  EXPECT_EQ(reply.length, most - 9);
}

TEST_F(HttpHelper, HeadersWithoutEndAbort) {
  const server broken{"HTTP/1.1 200 OK\r\n" + std::string(1024 * 1024, 'x')};
  EXPECT_EQ(results_for(broken.url()), (std::vector<int>{http_post_failed, -1}));
}

#if !ORVEL_THREAD_SANITIZER  // it needs the real realloc()
TEST_F(HttpHelper, LackOfMemoryForTheReplyAborts) {
  const server cloud{answer(200, std::string(300'000, 'x'))};
  curl_probe probe;
  probe.fail_realloc_from(200'000);
  log_capture log;
  EXPECT_EQ(results_for(cloud.url()), (std::vector<int>{http_post_failed, -1}));
  const std::string logged = log.text();
  EXPECT_EQ(count_of(logged, "WARNING: not enough memory (realloc returned NULL).\n"), 2U) << logged;
  EXPECT_THAT(logged, HasSubstr("failed with error code 23: "));
  EXPECT_EQ(reply.length, std::strlen(reply.text));
}
#endif

}  // namespace
