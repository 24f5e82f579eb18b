#include "control/control_listener.h"

#include "control_fixture.h"
#include "process_limits.h"
#include "sanitizers.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

using testing::HasSubstr;
using testing::Not;

namespace {

// --- dispatch

class ExecuteRequestTest : public control_fixture {
protected:
  int execute(const ControlRequest& request) {
    log_capture log;
    const int result = execute_request(&request, &settings);
    logged = log.text();
    return result;
  }

  std::string logged;
};

TEST_F(ExecuteRequestTest, AnUnknownTypeIsWarnedAbout) {
  for (const int type : {-1, 6, 1000}) {
    ControlRequest request{};
    request.type = type;
    EXPECT_EQ(execute(request), 0);
    EXPECT_THAT(logged, HasSubstr("WARNING: Cannot execute request with unknown type " +
                                  std::to_string(type) + ".\n"));
  }
}

TEST_F(ExecuteRequestTest, DiscoveryIsOnlySentWhenItIsInUse) {
  char service[] = "svc";
  ControlRequest request{};
  request.type = request_send_discovery;
  request.discovery.service_id = service;
  for (const char* off : {"0", "-1", "no"}) {
    store({{"q_use_discovery", off}});
    EXPECT_EQ(execute(request), 0);
    EXPECT_THAT(logged, HasSubstr("WARNING: Discovery is disabled."));
    EXPECT_THAT(logged, Not(HasSubstr("disabled.\n"))) << "the line has no end";
    EXPECT_THAT(logged, Not(HasSubstr("push")));
  }
  fakes.push_result = -8;
  for (const char* on : {"1", "2"}) {
    store({{"q_use_discovery", on}});
    EXPECT_EQ(execute(request), -8);
    EXPECT_THAT(logged, HasSubstr("push svc"));
  }
}

// --- broker messages for the agent itself

class IncomingRequestTest : public ExecuteRequestTest {
protected:
  int handle(const void* data, uint32_t length) {
    log_capture log;
    const int result = handle_incoming_request(data, length, &settings);
    logged = log.text();
    return result;
  }
};

TEST_F(IncomingRequestTest, IsExecutedThoughNotTerminated) {
  const std::string text = R"({"command":"pause_connections"}!!!!)";
  EXPECT_EQ(handle(text.data(), static_cast<uint32_t>(text.size() - 4)), 0);
  EXPECT_EQ(http_requests_paused(), 1);
  EXPECT_THAT(logged, Not(HasSubstr("Command execution result")));
}

TEST_F(IncomingRequestTest, GivesTheCommandsResult) {
  store({{"q_use_discovery", "1"}});
  pause_http_requests();
  const std::string text = R"({"command":"send_discovery","service":"svc"})";
  EXPECT_EQ(handle(text.data(), static_cast<uint32_t>(text.size())), -10);
}

TEST_F(IncomingRequestTest, UnreadableOnesAreRefused) {
  struct {
    const char* data;
    uint32_t length;
  } const cases[] = {{nullptr, 0}, {nullptr, 5}, {"{}", 0}, {"{}", 2}, {"x{}", 3}, {"\0{}", 3}};
  for (const auto& test : cases) {
    EXPECT_EQ(handle(test.data, test.length), -1) << test.length;
    EXPECT_THAT(logged, HasSubstr("control_listener: "));
    EXPECT_THAT(logged, HasSubstr("WARNING: Cannot parse incoming request.\n"));
  }
}

// The name is kept for the life of the process, so one test sees its whole life.
TEST_F(IncomingRequestTest, TheOwnHandlerNameIsReadUntilItIsSetAndThenKept) {
  serve_local_requests(&settings);
  const local_requests local = fake_delivery::local();
  EXPECT_EQ(local.own_handler_name(), nullptr);
  store({{"q_agent_handler_name", ""}});
  EXPECT_EQ(agent_handler_name(), nullptr);

  store({{"q_agent_handler_name", "agent"}});
  const char* seen[4] = {};
  std::vector<std::thread> readers;
  for (const char*& name : seen) {
    readers.emplace_back([&name] { name = agent_handler_name(); });
  }
  for (std::thread& reader : readers) {
    reader.join();
  }
  for (const char* name : seen) {
    EXPECT_STREQ(name, "agent");
    EXPECT_EQ(name, seen[0]);
  }
  store({{"q_agent_handler_name", "other"}});
  EXPECT_STREQ(local.own_handler_name(), "agent");

  const std::string text = R"({"command":"pause_connections"})";
  EXPECT_EQ(local.execute(text.data(), static_cast<uint32_t>(text.size())), 0);
  EXPECT_EQ(http_requests_paused(), 1);
}

class IncomingRequestDeathTest : public IncomingRequestTest {};

TEST_F(IncomingRequestDeathTest, LackOfMemoryEndsTheProcess) {
  if (under_sanitizer) GTEST_SKIP() << "the address space can't be limited";
  const auto handle_with_little_memory = [this] {
    options.console_log = true;
    options.log_level = level_error;
    set_limit(RLIMIT_AS, size_t{1} << 30);
    std::_Exit(handle_incoming_request(nullptr, UINT32_MAX, &settings));
  };
  EXPECT_EXIT(handle_with_little_memory(), testing::ExitedWithCode(255), "malloc\\(\\)\\.");
}

}  // namespace
