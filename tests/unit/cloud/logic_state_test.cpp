#include "cloud/logic_state.h"

#include "fake_delivery.h"
#include "forked.h"
#include "in_order.h"
#include "log_capture.h"
#include "settings_file.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

std::string document(int event, int daemon, const std::string& registered, const std::string& claimed,
                     const std::string& connected) {
  return "{\n\t\"event\":\t" + std::to_string(event) + ",\n\t\"daemon\":\t" +
         (daemon != 0 ? "true" : "false") + ",\n\t\"pid\":\t" + std::to_string(getpid()) +
         ",\n\t\"registered\":\t" + registered + ",\n\t\"claimed\":\t" + claimed + ",\n\t\"connected\":\t" +
         connected + "\n}";
}

class LogicStateTest : public testing::Test {
protected:
  LogicStateTest() {
    options.console_log = false;
    fake_delivery::take();
  }
  ~LogicStateTest() override {
    options.console_log = true;
    options.extra_parameters = false;
    fake_delivery::refuse(false);
  }

  // The record as start-up makes it; its report is taken away.
  static void start(const std::map<std::string, std::string>& stored = {}, int daemon = 0) {
    settings_file::fill(stored);
    orvel_state_init(daemon);
    fake_delivery::take();
  }

  static std::vector<fake_delivery::message> reports() { return fake_delivery::take(); }
};

TEST_F(LogicStateTest, StartsFromTheStoreAndReports) {
  settings_file::fill({{"q_agent_registered", "1"}, {"q_agent_claimed", "0"}, {"q_agent_connected", "1"}});
  orvel_state_init(1);
  EXPECT_THAT(reports(),
              ElementsAre(fake_delivery::message{"event_sink", document(0, 1, "true", "false", "false")}));
  EXPECT_EQ(claimed_state(), 0);
  EXPECT_EQ(settings_file::value("q_agent_pid"), std::to_string(getpid()));
  EXPECT_EQ(settings_file::value("q_agent_connected"), "0");
}

TEST_F(LogicStateTest, AnEmptyStoreMeansNothingIsTrueYet) {
  settings_file::fill({});
  orvel_state_init(0);
  EXPECT_THAT(reports(),
              ElementsAre(fake_delivery::message{"event_sink", document(0, 0, "false", "false", "false")}));
}

TEST_F(LogicStateTest, EachChangeIsReportedWithItsEventAndStored) {
  start();
  set_registered(1);
  EXPECT_THAT(reports(),
              ElementsAre(fake_delivery::message{"event_sink", document(2, 0, "true", "false", "false")}));
  EXPECT_EQ(settings_file::value("q_agent_registered"), "1");
  EXPECT_EQ(settings_file::value("q_agent_claimed"), "");

  set_claimed(1);
  EXPECT_THAT(reports(),
              ElementsAre(fake_delivery::message{"event_sink", document(3, 0, "true", "true", "false")}));
  EXPECT_EQ(settings_file::value("q_agent_claimed"), "1");
  EXPECT_EQ(claimed_state(), 1);

  set_connected(1);
  EXPECT_THAT(reports(),
              ElementsAre(fake_delivery::message{"event_sink", document(4, 0, "true", "true", "true")}));
  EXPECT_EQ(settings_file::value("q_agent_connected"), "1");

  set_registered(0);
  set_claimed(0);
  set_connected(0);
  EXPECT_THAT(reports(),
              ElementsAre(fake_delivery::message{"event_sink", document(2, 0, "false", "true", "true")},
                          fake_delivery::message{"event_sink", document(3, 0, "false", "false", "true")},
                          fake_delivery::message{"event_sink", document(4, 0, "false", "false", "false")}));
  EXPECT_EQ(settings_file::value("q_agent_registered"), "0");
  EXPECT_EQ(settings_file::value("q_agent_claimed"), "0");
  EXPECT_EQ(settings_file::value("q_agent_connected"), "0");
}

TEST_F(LogicStateTest, ConnectedStoresNeitherRegisteredNorClaimed) {
  start();
  set_connected(1);
  EXPECT_EQ(settings_file::value("q_agent_registered"), "");
  EXPECT_EQ(settings_file::value("q_agent_claimed"), "");
}

TEST_F(LogicStateTest, APresentValueChangesNothing) {
  start({{"q_agent_registered", "1"}, {"q_agent_claimed", "1"}});
  settings_file::fill({});
  log_capture log;
  set_registered(1);
  set_claimed(1);
  set_connected(0);
  EXPECT_THAT(log.text(), IsEmpty());
  EXPECT_THAT(reports(), IsEmpty());
  EXPECT_EQ(settings_file::value("q_agent_pid"), "");
  EXPECT_EQ(settings_file::value("q_agent_registered"), "");
}

TEST_F(LogicStateTest, ARequestedReportCarriesEventOneAndStoresNoFlag) {
  start({{"q_agent_claimed", "1"}});
  settings_file::fill({});
  request_report();
  EXPECT_THAT(reports(),
              ElementsAre(fake_delivery::message{"event_sink", document(1, 0, "false", "true", "false")}));
  EXPECT_EQ(settings_file::value("q_agent_claimed"), "");
  EXPECT_EQ(settings_file::value("q_agent_pid"), std::to_string(getpid()));
}

// What follows the end of the record, in a process of its own: that end is for good.
template <typename Body> int after_the_end(Body body) {
  return wait_for_child(start_child([&] {
    settings_file::fill({});
    body();
    EXPECT_THAT(fake_delivery::take(), ElementsAre());
    EXPECT_EQ(settings_file::value("q_agent_connected"), "0");
    EXPECT_EQ(settings_file::value("q_agent_pid"), "0");
    return testing::Test::HasFailure() ? 1 : 0;
  }));
}

TEST_F(LogicStateTest, AfterItsEndNothingIsReportedOrStored) {
  const int status = after_the_end([] {
    orvel_state_init(0);
    set_connected(1);
    finish_state_record();
    fake_delivery::take();
    set_connected(0);
    set_registered(1);
    request_report();
    EXPECT_EQ(settings_file::value("q_agent_registered"), "");
  });
  EXPECT_EQ(status, 0);
}

TEST_F(LogicStateTest, ARecordThatEndedBeforeItsStartNeverStarts) {
  const int status = after_the_end([] {
    finish_state_record();
    orvel_state_init(0);
    set_registered(1);
    request_report();
  });
  EXPECT_EQ(status, 0);
}

TEST_F(LogicStateTest, AReportLogsStatusDocumentAndDelivery) {
  start();
  log_capture log;
  set_connected(1);
  EXPECT_THAT(log.text(), has_in_order({"ERROR: connected\n",
                                        "DEBUG: '" + document(4, 0, "false", "false", "true") + "'\n",
                                        "DEBUG: orvel state was sent.\n"}));
}

TEST_F(LogicStateTest, LinesCarryTheTagLogic) {
  start();
  log_capture log;
  request_report();
  const std::string text = log.text();
  EXPECT_EQ(text.rfind("logic: ", 0), 0U) << text;
  EXPECT_THAT(text, HasSubstr("disconnected\n"));
}

TEST_F(LogicStateTest, ALostReportIsLoggedAndTheChangeStoredAllTheSame) {
  start();
  fake_delivery::refuse(true);
  log_capture log;
  set_claimed(1);
  const std::string text = log.text();
  EXPECT_THAT(text, HasSubstr("WARNING: cannot send orvel state.\n"));
  EXPECT_THAT(text, Not(HasSubstr("was sent")));
  EXPECT_EQ(settings_file::value("q_agent_claimed"), "1");
  EXPECT_EQ(claimed_state(), 1);
}

TEST_F(LogicStateTest, ExtraParametersAreWrittenOnlyWhenAskedFor) {
  start();
  set_registered(1);
  set_claimed(1);
  set_connected(1);
  for (const char* key : {"Registered", "Claimed", "Connected"}) {
    EXPECT_EQ(settings_file::value(key), "") << key;
  }
  options.extra_parameters = true;
  request_report();
  for (const char* key : {"Registered", "Claimed", "Connected"}) {
    EXPECT_EQ(settings_file::value(key), "true") << key;
  }
  set_claimed(0);
  EXPECT_EQ(settings_file::value("Registered"), "true");
  EXPECT_EQ(settings_file::value("Claimed"), "false");
  set_connected(0);
  EXPECT_EQ(settings_file::value("Connected"), "false");
  set_registered(0);
  EXPECT_EQ(settings_file::value("Registered"), "false");
}

TEST_F(LogicStateTest, AServiceHearsOfItsClaimAtItsOwnHandler) {
  log_capture log;
  notify_service("cam", 1);
  notify_service("cam", 0);
  const std::string text = log.text();
  EXPECT_THAT(text, HasSubstr("DEBUG: '{\n\t\"service\":\t\"cam\",\n\t\"claimed\":\ttrue\n}'\n"));
  EXPECT_THAT(text, HasSubstr("DEBUG: service notify was sended.\n"));
  EXPECT_THAT(
      reports(),
      ElementsAre(
          fake_delivery::message{"event_sink_cam", "{\n\t\"service\":\t\"cam\",\n\t\"claimed\":\ttrue\n}"},
          fake_delivery::message{"event_sink_cam", "{\n\t\"service\":\t\"cam\",\n\t\"claimed\":\tfalse\n}"}));
}

TEST_F(LogicStateTest, AServiceNameIsCutInTheHandlerNameOnly) {
  struct {
    size_t length;
    size_t in_name;
  } const cases[] = {{0, 0}, {116, 116}, {117, 116}, {500, 116}};
  for (const auto& test : cases) {
    const std::string service(test.length, 's');
    notify_service(service.c_str(), 1);
    const auto sent = reports();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].handler, "event_sink_" + std::string(test.in_name, 's'));
    EXPECT_THAT(sent[0].text, HasSubstr("\"" + service + "\""));
  }
}

TEST_F(LogicStateTest, ALostServiceNotificationIsLoggedAsSentAllTheSame) {
  fake_delivery::refuse(true);
  log_capture log;
  notify_service("cam", 1);
  EXPECT_THAT(log.text(), HasSubstr("DEBUG: service notify was sended.\n"));
}

// Whoever follows the reports must see each flag flip in turn, each under its own event code.
TEST_F(LogicStateTest, ReportsOfSeveralThreadsTellTheChangesInTheirOrder) {
  start();
  constexpr int rounds = 50;
  std::thread connecting{[] {
    for (int i = 0; i < rounds; ++i) {
      set_connected(i % 2 == 0 ? 1 : 0);
    }
  }};
  std::thread claiming{[] {
    for (int i = 0; i < rounds; ++i) {
      set_claimed(i % 2 == 0 ? 1 : 0);
    }
  }};
  connecting.join();
  claiming.join();

  std::string claimed = "false";
  std::string connected = "false";
  const auto sent = reports();
  ASSERT_EQ(sent.size(), 2U * rounds);
  for (const auto& report : sent) {
    const bool claim_changed = report.text.find("\"event\":\t3") != std::string::npos;
    std::string& flag = claim_changed ? claimed : connected;
    flag = flag == "true" ? "false" : "true";
    EXPECT_EQ(report.text, document(claim_changed ? 3 : 4, 0, "false", claimed, connected));
  }
}

}  // namespace
