#include "cloud/logic.h"

#include "cloud/logic_state.h"
#include "core/owned.h"
#include "curl_probe.h"
#include "fake_delivery.h"
#include "http_server.h"
#include "in_order.h"
#include "log_capture.h"
#include "settings_file.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>

using http_test::answer;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

char* copy_of(const char* text) {
  return must_copy_if_any(text, allocation_site{"test", __LINE__, "", 1});
}

// An answer with more header lines, each of which ends in "\r\n".
std::string answer_with_headers(int status, const std::string& lines) {
  return "HTTP/1.1 " + std::to_string(status) + " Word\r\n" + lines +
         "Content-Length: 0\r\nConnection: close\r\n\r\n";
}

class LogicTest : public testing::Test {
protected:
  LogicTest() {
    settings_file::fill({});
    options.console_log = false;
    options.hardware_id = "SN-0123456789";
    settings.http_request_timeout = 30;
    settings.http_connect_timeout = 30;
    hold_identity("AGENT-1", "SN-0123456789", "code-1");
  }
  ~LogicTest() override {
    release_settings(&settings);
    options.hardware_id = nullptr;
    options.console_log = true;
  }

  void hold_identity(const char* agent_id, const char* hardware_id, const char* claim_code) {
    replace_identity(&settings, {copy_of(agent_id), copy_of(hardware_id), copy_of(claim_code)});
  }

  // "agent id|hardware id|claim code", "-" for null.
  std::string identity() {
    const auto text = [](const char* value) { return std::string{value != nullptr ? value : "-"}; };
    DeviceIdentity held = copy_identity(&settings);
    std::string result = text(held.agent_id) + '|' + text(held.hardware_id) + '|' + text(held.claim_code);
    release_identity(&held);
    return result;
  }

  void point_to(const std::string& url) {
    for (char** field :
         {&settings.register_url, &settings.claimed_url, &settings.discovery_url, &settings.advisor_url}) {
      release_string(*field);
      *field = copy_of(url.c_str());
    }
  }

  // Runs one exchange against a server that gives `text` as its answer. What was asked and logged stays in
  // `request` and `logged`.
  template <typename exchange> int run(const std::string& text, exchange call) {
    const http_test::server server{text};
    point_to(server.url());
    log_capture log;
    const int result = call();
    logged = log.text();
    request = server.requests().empty() ? "" : server.requests()[0];
    return result;
  }

  // Runs one exchange whose transfer ends as `code` says.
  template <typename exchange> int run_failing(CURLcode code, exchange call) {
    curl_probe probe;
    probe.answer_transfers(code);
    point_to("http://127.0.0.1:1/v1");
    log_capture log;
    const int result = call();
    logged = log.text();
    return result;
  }

  AgentSettings settings{};
  std::string request;
  std::string logged;
};

// --- registration

constexpr char complete_registration[] = R"({"deviceId":"AGENT-2","claimCode":"code-2"})";

TEST_F(LogicTest, RegistrationSendsTheDeviceAndTakesItsIdentity) {
  EXPECT_EQ(run(answer(201, complete_registration), [&] { return register_device(&settings); }), 0);
  EXPECT_THAT(request, StartsWith("POST /v1 HTTP/1.1\r\n"));
  EXPECT_THAT(request,
              HasSubstr("\r\n\r\n{\n\t\"hardwareId\":\t\"SN-0123456789\",\n\t\"model\":\t\"Unknown\"\n}"));
  EXPECT_EQ(identity(), "AGENT-2|SN-0123456789|code-2");
  EXPECT_THAT(
      logged,
      has_in_order(
          {"DEBUG: register_url='" + std::string{settings.register_url} + "'\n",
           "DEBUG: created json registerPostData='{\n\t\"hardwareId\"",
           "DEBUG: Registered with: id='AGENT-2', hardwareId='SN-0123456789', claimCode='code-2'\n"}));
}

TEST_F(LogicTest, RegistrationCountsOnlyWithStatus201) {
  for (const int status : {200, 202, 404, 500}) {
    EXPECT_EQ(run(answer(status, complete_registration), [&] { return register_device(&settings); }), -1);
    EXPECT_THAT(logged,
                HasSubstr("WARNING: Invalid http code '" + std::to_string(status) + "' from server.\n"));
    EXPECT_EQ(identity(), "AGENT-1|SN-0123456789|code-1");
  }
}

TEST_F(LogicTest, ARejectedSerialNumberIsToldFromOtherRefusals) {
  EXPECT_EQ(
      run(answer_with_headers(403, "X-Error-Code: 1062\r\n"), [&] { return register_device(&settings); }),
      -2);
  EXPECT_THAT(logged,
              has_in_order({"Invalid http code '403' from server.\n",
                            "Found error header: X-Error-Code: 1062.\n", "Found wrong_sn error code.\n"}));
  EXPECT_EQ(run(answer_with_headers(403, "X-Error-Code: 17\r\n"), [&] { return register_device(&settings); }),
            -1);
}

TEST_F(LogicTest, AnUnreadableRegistrationLeavesTheIdentity) {
  EXPECT_EQ(run(answer(201, "<html>"), [&] { return register_device(&settings); }), -1);
  EXPECT_EQ(identity(), "AGENT-1|SN-0123456789|code-1");
  EXPECT_THAT(logged,
              has_in_order({"WARNING: Can't parse register reply: http code:'201'\nHeader:'HTTP/1.1 201",
                            "X-Test: yes\r\n", "'\nBody:'<html>'\n"}));
}

TEST_F(LogicTest, AnIncompleteRegistrationClearsTheWholeIdentity) {
  EXPECT_EQ(run(answer(201, R"({"deviceId":"AGENT-2"})"), [&] { return register_device(&settings); }), -1);
  EXPECT_EQ(identity(), "-|-|-");
}

TEST_F(LogicTest, AnEmptyRegistrationReplyIsLoggedAsEmpty) {
  EXPECT_EQ(run(answer(201, ""), [&] { return register_device(&settings); }), -1);
  EXPECT_THAT(logged, HasSubstr("'\nBody:''\n"));
}

TEST_F(LogicTest, EveryFailedRegistrationTransferIsOneToRepeat) {
  for (const CURLcode code : {CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_CONNECT, CURLE_OPERATION_TIMEDOUT}) {
    EXPECT_EQ(run_failing(code, [&] { return register_device(&settings); }), -1) << code;
    EXPECT_THAT(logged, HasSubstr("WARNING: Can't' make register request.\n"));
  }
}

// --- claim check

TEST_F(LogicTest, TheClaimCheckAsksWhoTheDeviceIsAndTakesTheAnswer) {
  struct {
    int status;
    const char* flag;
    int result;
    const char* message;
  } const cases[] = {{200, "true", 1, "DEBUG: Claimed.!\n"},
                     {201, "true", 1, "DEBUG: Claimed.!\n"},
                     {200, "false", 0, "DEBUG: Not claimed yet.\n"}};
  for (const auto& test : cases) {
    const std::string body =
        R"({"_type":"Device","deviceId":"AGENT-1","claimed":)" + std::string{test.flag} + "}";
    EXPECT_EQ(run(answer(test.status, body), [&] { return check_claim(&settings); }), test.result);
    EXPECT_THAT(logged, has_in_order({"DEBUG: claimed_url='" + std::string{settings.claimed_url} + "'\n",
                                      test.message}));
    EXPECT_THAT(request, StartsWith("GET /v1 HTTP/1.1\r\n"));
    EXPECT_THAT(request, HasSubstr("\r\nAuthorization: AGENT-1:code-1\r\n"));
  }
}

TEST_F(LogicTest, AClaimReplyThatSaysNothingIsAFailure) {
  EXPECT_EQ(run(answer(200, R"({"_type":"Device","deviceId":"A"})"), [&] { return check_claim(&settings); }),
            -1);
  EXPECT_THAT(logged, HasSubstr("WARNING: Failed to parse reply.\n"));
}

TEST_F(LogicTest, ARefusedClaimCheckIsAFailureWhateverItsHeadersSay) {
  EXPECT_EQ(run(answer_with_headers(401, "X-Error-Code: 1062\r\n"), [&] { return check_claim(&settings); }),
            -1);
  EXPECT_THAT(logged, has_in_order({"WARNING: Invalid http code '401' from server.\n",
                                    "Found error header: X-Error-Code: 1062.\n"}));
}

TEST_F(LogicTest, AFailedClaimTransferIsAFailure) {
  EXPECT_EQ(run_failing(CURLE_OPERATION_TIMEDOUT, [&] { return check_claim(&settings); }), -1);
  EXPECT_THAT(logged, HasSubstr("WARNING: Can't' make claim request.\n"));
}

// A server that gives one answer after the other.
class answering_in_turn {
public:
  explicit answering_in_turn(std::vector<std::string> answers)
      : thread_{[this, texts = std::move(answers)] {
          for (const std::string& text : texts) {
            const fd_owner client = socket_.accept_one();
            std::string request;
            char byte = 0;
            while (request.find("\r\n\r\n") == std::string::npos && recv(client.get(), &byte, 1, 0) == 1) {
              request += byte;
            }
            send(client.get(), text.data(), text.size(), MSG_NOSIGNAL);
          }
        }} {}
  ~answering_in_turn() { thread_.join(); }
  answering_in_turn(const answering_in_turn&) = delete;
  answering_in_turn& operator=(const answering_in_turn&) = delete;

  [[nodiscard]] std::string url() const {
    return "http://127.0.0.1:" + std::to_string(socket_.port()) + "/v1";
  }

private:
  loopback_listener socket_;
  std::thread thread_;
};

TEST_F(LogicTest, TheClaimWaitRepeatsFailedChecksAndRecordsTheAnswer) {
  orvel_state_init(0);
  fake_delivery::take();
  settings.claim_delay = 0;
  const answering_in_turn server{{answer(500, ""), answer(200, "no JSON"),
                                  answer(200, R"({"_type":"Device","deviceId":"AGENT-1","claimed":true})")}};
  point_to(server.url());
  log_capture log;
  EXPECT_EQ(wait_for_claim_status(&settings), 1);
  EXPECT_THAT(log.text(), has_in_order({"WARNING: Failed to get claim status. Sleeping for 0 secs.\n",
                                        "WARNING: Failed to get claim status. Sleeping for 0 secs.\n",
                                        "INFO: Device is claimed: id='AGENT-1', hardwareId='SN-0123456789', "
                                        "claimCode='code-1'.\n",
                                        "\"event\":\t3"}));
  EXPECT_EQ(claimed_state(), 1);
  EXPECT_EQ(settings_file::value("q_agent_claimed"), "1");
  EXPECT_EQ(fake_delivery::take().size(), 1U);
}

TEST_F(LogicTest, AClaimThatIsAlreadyRecordedIsNotReportedAgain) {
  orvel_state_init(0);
  fake_delivery::take();
  EXPECT_EQ(run(answer(200, R"({"_type":"Device","deviceId":"AGENT-1","claimed":false})"),
                [&] { return wait_for_claim_status(&settings); }),
            0);
  EXPECT_THAT(logged, HasSubstr("INFO: Device is not claimed.\n"));
  EXPECT_TRUE(fake_delivery::take().empty());
}

// --- discovery

class LogicDiscoveryTest : public LogicTest {
protected:
  ~LogicDiscoveryTest() override { release_discovery_params(&params); }

  int discover_with(const std::string& text) {
    return run(text, [&] { return discover(&settings, &params); });
  }

  DiscoveryParams params{.service_id = copy_of("svc"),
                         .discovery_time = 0,
                         .discovery_id = nullptr,
                         .discovery_data = nullptr,
                         .carrier_id = nullptr};
};

TEST_F(LogicDiscoveryTest, SendsTheDeviceAndNamesServiceInTheAddress) {
  EXPECT_EQ(discover_with(answer(200, "")), 0);
  EXPECT_THAT(request, StartsWith("POST /v1/?i=SN-0123456789&s=svc HTTP/1.1\r\n"));
  const std::string body = "{\n\t\"_type\":\t\"Device\",\n\t\"_id\":\t\"AGENT-1\",\n\t\"hardwareId\":\t"
                           "\"SN-0123456789\",\n\t\"model\":\t\"Unknown\"\n}";
  EXPECT_THAT(request, HasSubstr("\r\n\r\n" + body));
  EXPECT_THAT(logged, has_in_order({"DEBUG: created json discoveryPostData='" + body + "'\n",
                                    "DEBUG: discovery_url='" + std::string{settings.discovery_url} +
                                        "/?i=SN-0123456789&s=svc'\n",
                                    "DEBUG: http code:'200'\n", "DEBUG: Discover OK!.\n"}));
}

TEST_F(LogicDiscoveryTest, TheAddressCarriesTimeAndIdWhenGiven) {
  struct {
    int32_t time;
    const char* id;
    const char* target;
  } const cases[] = {{1, nullptr, "/v1/?i=SN-0123456789&e=1&s=svc"},
                     {600, "other", "/v1/?i=other&e=600&s=svc"},
                     {0, "other", "/v1/?i=other&s=svc"},
                     {-5, "", "/v1/?i=&s=svc"}};
  for (const auto& test : cases) {
    params.discovery_time = test.time;
    release_string(params.discovery_id);
    params.discovery_id = copy_of(test.id);
    EXPECT_EQ(discover_with(answer(200, "")), 0);
    EXPECT_THAT(request, StartsWith("POST " + std::string{test.target} + " HTTP/1.1\r\n"));
  }
}

TEST_F(LogicDiscoveryTest, AnAddressIsCutAt255Characters) {
  release_string(params.service_id);
  params.service_id = copy_of(std::string(400, 's').c_str());
  EXPECT_EQ(discover_with(answer(200, "")), 0);
  const std::string base{settings.discovery_url};
  const std::string whole = base + "/?i=SN-0123456789&s=" + std::string(400, 's');
  EXPECT_THAT(logged, HasSubstr("DEBUG: discovery_url='" + whole.substr(0, 255) + "'\n"));
}

TEST_F(LogicDiscoveryTest, DiscoveryDataGoesIntoTheDocumentAlsoWhenEmpty) {
  for (const char* data : {"some data", ""}) {
    release_string(params.discovery_data);
    params.discovery_data = copy_of(data);
    EXPECT_EQ(discover_with(answer(200, "")), 0);
    EXPECT_THAT(request, HasSubstr("\"discoveryData\":\t\"" + std::string{data} + "\"\n}"));
  }
}

TEST_F(LogicDiscoveryTest, EveryOtherStatusThan200IsRefused) {
  for (const int status : {201, 404}) {
    EXPECT_EQ(discover_with(answer_with_headers(status, "X-Error-Code: 1062\r\n")), -5);
    EXPECT_THAT(logged, has_in_order({"DEBUG: http code:'" + std::to_string(status) + "'\n",
                                      "Invalid http code '" + std::to_string(status) + "' from server.\n",
                                      "Found error header: X-Error-Code: 1062.\n"}));
  }
}

TEST_F(LogicDiscoveryTest, AFailedTransferGivesTheClientsCode) {
  struct {
    CURLcode code;
    int result;
  } const cases[] = {{CURLE_COULDNT_RESOLVE_HOST, -7},
                     {CURLE_COULDNT_CONNECT, -8},
                     {CURLE_OPERATION_TIMEDOUT, -4},
                     {CURLE_RECV_ERROR, 1}};
  for (const auto& test : cases) {
    EXPECT_EQ(run_failing(test.code, [&] { return discover(&settings, &params); }), test.result);
    EXPECT_THAT(logged, HasSubstr("WARNING: Can't' make discovery request.\n"));
  }
}

// --- advisor

class LogicAdvisorTest : public LogicTest {
protected:
  ~LogicAdvisorTest() override { release_advisor_reply(&advice); }

  int ask(const std::string& text) {
    release_advisor_reply(&advice);
    return run(text, [&] { return ask_advisor(&settings, &advice); });
  }

  AdvisorReply advice{};
};

TEST_F(LogicAdvisorTest, TakesTheBrokerThatTheAdvisorNames) {
  const std::string body = R"({"_type":"ActionConnect","broker":"b.example","port":"8883"})";
  EXPECT_EQ(ask(answer(200, body)), 0);
  EXPECT_STREQ(advice.broker_host, "b.example");
  EXPECT_EQ(advice.port, 8883);
  EXPECT_THAT(request, StartsWith("GET /v1 HTTP/1.1\r\n"));
  EXPECT_THAT(request, Not(HasSubstr("X-Carrier-ID")));
  EXPECT_THAT(logged, has_in_order({"DEBUG: advisor_url='" + std::string{settings.advisor_url} + "'\n",
                                    "DEBUG: http code:'200'\n", "DEBUG: body:'" + body + "'\n"}));
}

TEST_F(LogicAdvisorTest, ACarrierIdIsSentAlong) {
  replace_carrier_id(&settings, copy_of("carrier 7"));
  EXPECT_EQ(ask(answer(200, R"({"_type":"ActionWait","period":0})")), 0);
  EXPECT_THAT(request, HasSubstr("\r\nX-Carrier-ID: carrier 7\r\n"));
  EXPECT_EQ(advice.action, advisor_wait);
}

TEST_F(LogicAdvisorTest, ALongCarrierIdIsCutWithItsHeader) {
  replace_carrier_id(&settings, copy_of(std::string(400, 'c').c_str()));
  EXPECT_EQ(ask(answer(200, R"({"_type":"ActionWait","period":0})")), 0);
  const std::string header = "X-Carrier-ID: " + std::string(400, 'c');
  EXPECT_THAT(request, HasSubstr("\r\n" + header.substr(0, 255) + "\r\n"));
}

TEST_F(LogicAdvisorTest, ARefusedOrUnreadableAnswerIsAFailure) {
  EXPECT_EQ(ask(answer_with_headers(503, "X-Error-Message: busy\r\n")), -1);
  EXPECT_THAT(logged, has_in_order({"DEBUG: http code:'503'\n", "DEBUG: body:''\n",
                                    "WARNING: Invalid http code '503' from server.\n",
                                    "WARNING: Found error header: X-Error-Message: busy.\n"}));
  EXPECT_EQ(ask(answer(201, R"({"_type":"ActionWait","period":0})")), -1) << "only status 200 counts";
  EXPECT_EQ(ask(answer(200, R"({"_type":"ActionWait"})")), -1);
  EXPECT_THAT(logged, HasSubstr("WARNING: Can't parse reply from advisor.\n"));
  EXPECT_EQ(advice.broker_host, nullptr);
}

TEST_F(LogicAdvisorTest, AFailedTransferIsAFailure) {
  EXPECT_EQ(run_failing(CURLE_COULDNT_CONNECT, [&] { return ask_advisor(&settings, &advice); }), -1);
  EXPECT_THAT(logged, HasSubstr("WARNING: Can't make advisor request.\n"));
  EXPECT_THAT(logged, Not(HasSubstr("http code")));
}

}  // namespace
