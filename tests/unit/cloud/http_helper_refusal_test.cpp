#include "cloud/http_helper.h"

#include "http_fixture.h"
#include "log_capture.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace {

using testing::HasSubstr;
using testing::Not;

class HttpHelperRefusal : public http_test::fixture {};

/// Pauses and resumes as fast as it can until the end of the scope.
class restless_pause {
public:
  restless_pause() = default;
  ~restless_pause() {
    over_ = true;
    thread_.join();
  }
  restless_pause(const restless_pause&) = delete;
  restless_pause& operator=(const restless_pause&) = delete;

private:
  std::atomic<bool> over_{false};
  std::thread thread_{[this] {
    while (!over_) {
      pause_http_requests();
      resume_http_requests();
    }
  }};
};

// However pauses and resumes fall between its steps: the next resume might have to come through this very thread.
TEST_F(HttpHelperRefusal, AThreadThatIsRefusedNeverWaitsAtThePauseGate) {
  const log_capture log;
  {
    const restless_pause pausing;
    std::thread{[this] {
      refuse_requests_while_paused();
      for (int made = 0; made < 3000;) {
        if (post("https://127.0.0.1:1/") != http_would_block) ++made;  // nobody listens there
      }
    }}.join();
  }
  EXPECT_THAT(logged_so_far(), Not(HasSubstr("Pause http request until we allow to do it\n")));
}

}  // namespace
