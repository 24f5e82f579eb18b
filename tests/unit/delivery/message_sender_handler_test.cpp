#include "delivery/message_sender.h"

#include "failing_calls.h"
#include "handler_ends.h"
#include "log_capture.h"
#include "log_lines.h"
#include "settings_file.h"
#include "temp_folder.h"
#include "waiting.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <sys/stat.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

int send_text(const char* handler, const std::string& text) {
  return send_to_handler(handler, text.data(), static_cast<uint32_t>(text.size()));
}

// A handler without anything that the log must show.
std::vector<std::string> lines_of_failed_sending(const char* handler) {
  log_capture log;
  EXPECT_NE(send_text(handler, "lost"), 0);
  return messages(log.text());
}

TEST(MessageSenderHandler, HandlerGetsTheMessageAtItsEndpoint) {
  const listening_handler handler;
  const settings_file settings{{{"q_handler_lamp", handler.endpoint()}}};
  log_capture log;
  EXPECT_EQ(send_text("lamp", "hello"), 1);
  EXPECT_THAT(messages(log.text()), ElementsAre("DEBUG: handler_desc='q_handler_lamp'",
                                                "DEBUG: host_address='" + handler.endpoint() + "'",
                                                "INFO: Sent to handler 5 bytes."));
  EXPECT_EQ(handler.receive(), "hello");
}

TEST(MessageSenderHandler, HandlerWithoutSettingGetsNothingAndOneLine) {
  for (const char* handler : {"lamp", "unset"}) {
    const settings_file settings{{{"q_handler_lamp", ""}}};
    errno = 0;
    EXPECT_THAT(lines_of_failed_sending(handler),
                ElementsAre("DEBUG: handler_desc='q_handler_" + std::string{handler} + "'"));
    EXPECT_EQ(errno, ENOENT);
  }
}

TEST(MessageSenderHandler, MissingNameIsAnError) {
  errno = 0;
  EXPECT_THAT(lines_of_failed_sending(nullptr), ElementsAre("WARNING: description is null."));
  EXPECT_EQ(errno, EINVAL);
}

TEST(MessageSenderHandler, NameIsCutAfter117Characters) {
  const std::string name(118, 'n');
  const std::string key = "q_handler_" + name.substr(0, 117);
  const listening_handler handler;
  const settings_file settings{{{key, handler.endpoint()}}};
  log_capture log;
  EXPECT_EQ(send_text(name.c_str(), "hello"), 1);
  EXPECT_EQ(messages(log.text()).front(), "DEBUG: handler_desc='" + key + "'");
  EXPECT_EQ(handler.receive(), "hello");
}

TEST(MessageSenderHandler, PathWithoutRegularFileIsAUnixSocket) {
  const temp_folder folder;
  const listening_handler handler{folder / "socket"};
  const settings_file settings{{{"q_handler_lamp", folder / "socket"}, {"q_handler_gone", folder / "gone"}}};
  EXPECT_EQ(send_text("lamp", "hello"), 1);
  EXPECT_EQ(handler.receive(), "hello");
  EXPECT_THAT(lines_of_failed_sending("gone").back(),
              StartsWith("WARNING: Can't connect to unix socket '" + folder / "gone" + "', errno=2"));
}

TEST(MessageSenderHandler, FolderIsTakenForAUnixSocket) {
  const settings_file settings{{{"q_handler_lamp", "/tmp"}}};
  EXPECT_THAT(lines_of_failed_sending("lamp").back(),
              StartsWith("WARNING: Can't connect to unix socket '/tmp', "));
}

TEST(MessageSenderHandler, RegularFileIsStarted) {
  const temp_folder folder;
  const std::string program = folder / "program";
  std::ofstream{program} << "#!/bin/sh\ncat > '" << folder / "new"
                         << "' && mv '" << folder / "new"
                         << "' '" << folder / "received"
                         << "'\n";
  chmod(program.c_str(), 0700);
  const settings_file settings{{{"q_handler_lamp", program}}};
  log_capture log;
  EXPECT_EQ(send_text("lamp", "hello"), 1);
  EXPECT_THAT(messages(log.text()),
              ElementsAre("DEBUG: handler_desc='q_handler_lamp'", "DEBUG: host_address='" + program + "'",
                          "DEBUG: Sended 5 bytes to local handler " + program + "."));
  EXPECT_TRUE(eventually([&] { return std::filesystem::exists(folder / "received"); }));
  EXPECT_EQ(read_text_file(folder / "received"), "hello");
}

TEST(MessageSenderHandler, FileWithoutTheOwnersExecutePermissionIsTriedAllTheSame) {
  const temp_folder folder;
  const std::string program = folder / "program";
  std::ofstream{program} << "#!/bin/sh\n";
  chmod(program.c_str(), 0600);
  const settings_file settings{{{"q_handler_lamp", program}}};
  EXPECT_THAT(lines_of_failed_sending("lamp"),
              ElementsAre("DEBUG: handler_desc='q_handler_lamp'", "DEBUG: host_address='" + program + "'",
                          "WARNING: handler lamp pointing to file, but executable bit is not set.",
                          "WARNING: Cannot execute " + program + ", errno 13.",
                          "DEBUG: Sended 4 bytes to local handler " + program + "."));
}

struct port_case {
  const char* port;
  const char* line;  ///< the last one
};

TEST(MessageSenderHandler, WrongPortEndsTheDelivery) {
  constexpr port_case cases[] = {
      {"0", "WARNING: Incorrect port value in configuration: '0'."},
      {"", "WARNING: Incorrect port value in configuration: '0'."},
      {"x80", "WARNING: Incorrect port value in configuration: '0'."},
      {"65536", "WARNING: Incorrect port value in configuration: '65536'."},
      {"70000", "WARNING: Incorrect port value in configuration: '70000'."},
      {"9999999", "WARNING: Incorrect port value in configuration: '9999999'."},
      {"12345678", "WARNING: Incorrect port value in configuration: '1234567'."},
  };
  for (const port_case& each : cases) {
    const listening_handler next;
    const std::string value = std::string{"127.0.0.1:"} + each.port + "," + next.endpoint();
    const settings_file settings{{{"q_handler_event_sink", value}, {"q_handler_lamp", value}}};
    for (const char* handler : {"event_sink", "lamp"}) {
      EXPECT_EQ(lines_of_failed_sending(handler).back(), each.line);
    }
    EXPECT_FALSE(next.has_connection());
  }
}

TEST(MessageSenderHandler, PortThatTheLibraryRefusesIsLoggedAsText) {
  const settings_file settings{{{"q_handler_lamp", "127.0.0.1:port"}}};
  const failing_call failing{"strtol", EINVAL};
  EXPECT_EQ(lines_of_failed_sending("lamp").back(),
            "WARNING: Incorrect port in configuration for handler line: 'port'.");
}

TEST(MessageSenderHandler, NegativePortWrapsRound) {
  const listening_handler handler;
  const std::string wrapped = std::to_string(handler.port() - 65536);
  const settings_file settings{
      {{"q_handler_lamp", "127.0.0.1:" + wrapped}, {"q_handler_minus_one", "127.0.0.1:-1"}}};
  EXPECT_EQ(send_text("lamp", "hello"), 1);
  EXPECT_EQ(handler.receive(), "hello");

  log_capture log;
  send_text("minus_one", "lost");
  EXPECT_THAT(log.text(), testing::AnyOf(testing::HasSubstr("Can't connect to '127.0.0.1':65535, "),
                                         testing::HasSubstr("Sent to handler 4 bytes.")));
}

TEST(MessageSenderHandler, OnlyTheFirstEndpointOfAnOrdinaryHandlerIsUsed) {
  const listening_handler first;
  const listening_handler second;
  const settings_file settings{{{"q_handler_lamp", first.endpoint() + "," + second.endpoint()}}};
  log_capture log;
  EXPECT_NE(send_text("lamp", "hello"), 0);
  EXPECT_EQ(messages(log.text()).back(),
            "WARNING: handler for lamp has multiple endpoints (2). Only event_sink support this.");
  EXPECT_EQ(first.receive(), "hello");
  EXPECT_FALSE(second.has_connection());
}

TEST(MessageSenderHandler, EveryEndpointOfTheEventSinkGetsTheMessageInTurn) {
  const temp_folder folder;
  const listening_handler first;
  const listening_handler second{folder / "socket"};
  const std::string value = first.endpoint() + "," + folder / "socket";
  const settings_file settings{{{"q_handler_event_sink", value}}};
  log_capture log;
  EXPECT_EQ(send_text("event_sink", "hello"), -1);
  EXPECT_THAT(messages(log.text()),
              ElementsAre("DEBUG: handler_desc='q_handler_event_sink'", "DEBUG: host_address='" + value + "'",
                          "INFO: Sent to handler 5 bytes.", "DEBUG: handler_desc='q_handler_event_sink'",
                          "DEBUG: host_address='" + value + "'", "INFO: Sent to handler 5 bytes."));
  EXPECT_EQ(first.receive(), "hello");
  EXPECT_EQ(second.receive(), "hello");
}

TEST(MessageSenderHandler, FailedEndpointOfTheEventSinkDoesNotStopTheNext) {
  listening_handler first;
  const listening_handler second;
  first.stop();
  const settings_file settings{{{"q_handler_event_sink", first.endpoint() + "," + second.endpoint()}}};
  EXPECT_EQ(send_text("event_sink", "hello"), -1);
  EXPECT_EQ(second.receive(), "hello");
}

TEST(MessageSenderHandler, EventSinksOfServicesAreOrdinaryHandlers) {
  const listening_handler first;
  const listening_handler second;
  const settings_file settings{{{"q_handler_event_sink_tv", first.endpoint() + "," + second.endpoint()}}};
  EXPECT_NE(send_text("event_sink_tv", "hello"), 0);
  EXPECT_EQ(first.receive(), "hello");
  EXPECT_FALSE(second.has_connection());
}

TEST(MessageSenderHandler, SettingIsReadAgainForEachEndpoint) {
  const listening_handler first;
  const settings_file settings{{{"q_handler_event_sink", first.endpoint() + ",127.0.0.1:9"}}};
  // The first endpoint's reader shortens the list while the message is still being sent.
  const std::string text = payload_of(8'000'000);
  std::thread reader{[&] {
    const fd_owner connection = first.accept_one();
    settings_file::fill({{"q_handler_event_sink", first.endpoint()}});
    std::string block(1 << 16, '\0');
    while (read(connection.get(), block.data(), block.size()) > 0) {
    }
  }};
  log_capture log;
  errno = 0;
  EXPECT_NE(send_text("event_sink", text), 0);
  EXPECT_EQ(errno, EINVAL);
  reader.join();
  EXPECT_EQ(messages(log.text()).back(), "WARNING: requested 1 handler, but we can find only 1.");
}

struct level_case {
  const char* value;
  const char* part;
  int level;
};

TEST(MessageSenderHandler, LinesHaveTheirLevels) {
  constexpr level_case cases[] = {
      {"127.0.0.1:0", "Incorrect port value", level_error},
      {"127.0.0.1:1,x", "Can't connect to", level_warning},
      {"127.0.0.1:1,x", "multiple endpoints", level_warning},
      {"127.0.0.1:1,x", "host_address=", level_debug},
      {"127.0.0.1:1,x", "handler_desc=", level_debug},
      {":80", "Can't resolve host", level_warning},
      {"/nowhere/socket", "Can't connect to unix socket", level_warning},
  };
  for (const level_case& each : cases) {
    const settings_file settings{{{"q_handler_lamp", each.value}}};
    for (int threshold = level_debug; threshold <= level_error; ++threshold) {
      log_capture log;
      options.log_level = threshold;
      send_text("lamp", "lost");
      EXPECT_EQ(count_of(log.text(), each.part), each.level >= threshold ? 1U : 0U) << each.part << threshold;
    }
  }
}

// What the agent itself got, and how.
struct own_messages {
  const char* name = "agent";
  int result = 0;
  std::vector<std::string> texts;
};
own_messages own;

int take_own_message(const void* data, uint32_t length) {
  own.texts.emplace_back(static_cast<const char*>(data), length);
  return own.result;
}

struct own_handler {
  own_handler() {
    own = {};
    set_local_requests({[] { return own.name; }, take_own_message});
  }
  ~own_handler() { set_local_requests({}); }
  own_handler(const own_handler&) = delete;
  own_handler& operator=(const own_handler&) = delete;
};

TEST(MessageSenderHandler, MessageToTheAgentItselfIsExecuted) {
  const own_handler handler;
  const listening_handler outside;
  const settings_file settings{{{"q_handler_agent", outside.endpoint()}}};
  own.result = -10;
  log_capture log;
  EXPECT_EQ(send_text("agent", "request"), -10);
  EXPECT_EQ(log.text(), "");
  EXPECT_THAT(own.texts, ElementsAre("request"));
  EXPECT_FALSE(outside.has_connection());
}

TEST(MessageSenderHandler, MessageToAnotherNameIsNotTheAgents) {
  const own_handler handler;
  const settings_file settings;
  for (const char* name : {"agent2", "Agent", ""}) {
    lines_of_failed_sending(name);
  }
  lines_of_failed_sending(nullptr);
  EXPECT_THAT(own.texts, IsEmpty());
}

TEST(MessageSenderHandler, AgentWithoutAHandlerNameExecutesNothing) {
  const own_handler handler;
  const settings_file settings;
  own.name = nullptr;
  lines_of_failed_sending("agent");
  EXPECT_THAT(own.texts, IsEmpty());
}

}  // namespace
