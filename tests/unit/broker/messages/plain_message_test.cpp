#include "broker/messages/plain_message.h"

#include "../delivery_capture.h"
#include "log_capture.h"
#include "process_limits.h"
#include "sanitizers.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

void append(const std::string& chunk) {
  plain_message_append(reinterpret_cast<const unsigned char*>(chunk.data()),
                       static_cast<uint16_t>(chunk.size()));
}

void send_message(const std::vector<std::string>& chunks) {
  plain_message_reset();
  for (const std::string& chunk : chunks) {
    append(chunk);
  }
  plain_message_deliver();
}

// Appends 6 MB where 2 MB fit. 0 when a part of it, made of whole chunks, is delivered.
int deliver_with_short_memory() {
  const delivery_capture handler{"sink"};
  const std::string chunk(65535, 'x');
  plain_message_reset();
  append("sink");
  limit_memory(2U << 20);
  for (int i = 0; i < 100; ++i) {
    append(chunk);
  }
  lift_memory_limit();
  append("end");
  plain_message_deliver();
  const std::vector<std::string> messages = delivery_capture::wait_for(1);
  if (messages.size() != 1) return 1;
  const std::string& message = messages[0];
  const size_t chunks = message.size() / chunk.size();
  if (chunks < 1 || chunks > 60 || message.size() != chunks * chunk.size() + 3) return 2;
  return message == std::string(chunks * chunk.size(), 'x') + "end" ? 0 : 3;
}

}  // namespace

TEST(PlainMessage, TheFirstChunkNamesTheHandler) {
  const delivery_capture handler{"sink"};
  send_message({"sink", "payload"});
  EXPECT_THAT(delivery_capture::wait_for(1), ElementsAre("payload"));
}

TEST(PlainMessage, ChunksOfThreeNoneAndFiveBytesMakeEight) {
  const delivery_capture handler{"sink"};
  send_message({"sink", "abc", "", "defgh"});
  EXPECT_THAT(delivery_capture::wait_for(1), ElementsAre("abcdefgh"));
}

TEST(PlainMessage, APayloadMayHoldAnyByte) {
  const delivery_capture handler{"sink"};
  std::string all;
  for (int i = 0; i < 256; ++i) {
    all += static_cast<char>(i);
  }
  send_message({"sink", all, all});
  EXPECT_THAT(delivery_capture::wait_for(1), ElementsAre(all + all));
}

TEST(PlainMessage, AHandlerNameEndsAtItsFirstNul) {
  const delivery_capture handler{"sink"};
  send_message({std::string("sink\0rest", 9), "payload"});
  EXPECT_THAT(delivery_capture::wait_for(1), ElementsAre("payload"));
}

TEST(PlainMessage, ALargePayloadIsWhole) {
  const delivery_capture handler{"sink"};
  const std::string chunk(65535, 'y');
  send_message({"sink", chunk, chunk, chunk, "end"});
  EXPECT_THAT(delivery_capture::wait_for(1), ElementsAre(chunk + chunk + chunk + "end"));
}

TEST(PlainMessage, ResetForgetsWhatWasCollected) {
  const delivery_capture handler{"sink"};
  append("other");
  append("lost");
  send_message({"sink", "kept"});
  EXPECT_THAT(delivery_capture::wait_for(1), ElementsAre("kept"));
}

TEST(PlainMessage, WithoutAHandlerNameItIsDropped) {
  plain_message_reset();
  log_capture log;
  plain_message_deliver();
  EXPECT_THAT(log.text(), HasSubstr("plain_message: "));
}

TEST(PlainMessage, ADeliveredMessageIsGone) {
  const delivery_capture handler{"sink"};
  send_message({"sink", "once"});
  EXPECT_THAT(delivery_capture::wait_for(1), ElementsAre("once"));
  log_capture log;
  plain_message_deliver();
  EXPECT_THAT(log.text(), HasSubstr("WARNING: received message from qbroker without handler id\n"));
}

TEST(PlainMessage, AChunkWithoutMemoryIsSkipped) {
  if (under_sanitizer) GTEST_SKIP() << "a sanitizer's allocator does not fail within a memory limit";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(_exit(deliver_with_short_memory()), testing::ExitedWithCode(0), "");
}
