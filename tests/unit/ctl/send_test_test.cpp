#include "ctl/send_test.h"

#include <gtest/gtest.h>

namespace {

TEST(CtlSendTest, WarningsAreFailures) {
  const delivery_line judged =
      judge_delivery_line("message_sender: 33: WARNING: Can't connect to unix socket '/a', errno=2 - x.");
  EXPECT_TRUE(judged.failure);
  EXPECT_FALSE(judged.debug);
}

TEST(CtlSendTest, OtherEndpointsAreNoFailure) {
  EXPECT_FALSE(judge_delivery_line("message_sender: 115: WARNING: handler for a has multiple endpoints (2). "
                                   "Only event_sink support this.")
                   .failure);
}

TEST(CtlSendTest, DetailsAreForTheVerbose) {
  const delivery_line judged =
      judge_delivery_line("message_sender: 44:   DEBUG: host_address=': 1: WARNING: '");
  EXPECT_TRUE(judged.debug);
  EXPECT_FALSE(judged.failure);
}

TEST(CtlSendTest, SuccessIsShown) {
  const delivery_line judged = judge_delivery_line("message_sender: 64:    INFO: Sent to handler 5 bytes.");
  EXPECT_FALSE(judged.debug || judged.failure);
}

TEST(CtlSendTest, StrangeLineIsShown) {
  for (const char* line : {"", ":", ": ", "no tag", "one: two"}) {
    const delivery_line judged = judge_delivery_line(line);
    EXPECT_FALSE(judged.debug || judged.failure) << line;
  }
}

}  // namespace
