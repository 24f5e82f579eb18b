#include "cloud/http_helper.h"

#include "core/daemon.h"
#include "curl_probe.h"
#include "http_fixture.h"
#include "http_server.h"
#include "log_capture.h"

#include <atomic>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

using http_test::answer;
using http_test::server;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char held_back[] = "  DEBUG: Pause http request until we allow to do it\n";
constexpr int still_running = 99;

enum class method { get, post };

/// One request with buffers of its own; its result.
int make_request(method wanted, const std::string& url, AgentSettings* settings) {
  HttpBuffer headers = http_buffer_create();
  HttpBuffer reply = http_buffer_create();
  long status = 0;
  const int result = wanted == method::get
                         ? http_get(url.c_str(), settings, &status, &headers, &reply)
                         : http_post_json(url.c_str(), settings, "{}", &status, &headers, &reply);
  http_buffer_free(&headers);
  http_buffer_free(&reply);
  return result;
}

/// A request on a thread of its own, which may be told to stop.
class request_thread {
public:
  request_thread(method wanted, const std::string& url, AgentSettings* settings) {
    thread_ = std::thread{[this, wanted, url, settings] {
      wait_only_while(&keep_going_);
      result_ = make_request(wanted, url, settings);
    }};
  }
  ~request_thread() { thread_.join(); }
  request_thread(const request_thread&) = delete;
  request_thread& operator=(const request_thread&) = delete;

  [[nodiscard]] int result() const { return result_; }
  /// The result once the request has ended.
  [[nodiscard]] int wait() const {
    EXPECT_TRUE(eventually([this] { return result_ != still_running; }));
    return result_;
  }
  void stop_at_the_gate() {
    keep_going_ = 0;
    wake_sleepers();
  }
  void stop_in_the_queue() {
    keep_going_ = 0;
    wake_http_waiters();
  }

private:
  std::atomic<int> keep_going_{1};
  std::atomic<int> result_{still_running};
  std::thread thread_;
};

class HttpHelperWait : public http_test::fixture {
protected:
  static bool reaches_the_gate(size_t times = 1) {
    return eventually([=] { return count_of(logged_so_far(), held_back) >= times; });
  }

  server cloud{answer(200, "")};
};

TEST_F(HttpHelperWait, PauseFlagTellsWhetherRequestsAreHeldBack) {
  EXPECT_EQ(http_requests_paused(), 0);
  pause_http_requests();
  pause_http_requests();
  EXPECT_EQ(http_requests_paused(), 1);
  resume_http_requests();
  EXPECT_EQ(http_requests_paused(), 0);
}

TEST_F(HttpHelperWait, PausedRequestsWaitForResume) {
  for (const auto wanted : {method::get, method::post}) {
    const log_capture log;
    pause_http_requests();
    const request_thread request{wanted, cloud.url(), &settings};
    ASSERT_TRUE(reaches_the_gate());
    EXPECT_EQ(request.result(), still_running);
    const size_t before = cloud.requests().size();
    resume_http_requests();
    EXPECT_EQ(request.wait(), 0);
    EXPECT_EQ(cloud.requests().size(), before + 1);
  }
}

TEST_F(HttpHelperWait, AWakeUpAloneDoesNotLetAPausedRequestGo) {
  const log_capture log;
  pause_http_requests();
  const request_thread request{method::get, cloud.url(), &settings};
  ASSERT_TRUE(reaches_the_gate());
  // The line tells that the gate is near, not that the wait has begun: wake until it was tested again.
  EXPECT_TRUE(eventually([] {
    wake_sleepers();
    return count_of(logged_so_far(), held_back) >= 2;
  }));
  EXPECT_EQ(request.result(), still_running);
  EXPECT_THAT(cloud.requests(), IsEmpty());
  resume_http_requests();
  EXPECT_EQ(request.wait(), 0);
}

// As the control listener: a resume has to come through this thread.
int make_request_or_refuse(method wanted, const std::string& url, AgentSettings* settings) {
  std::atomic<int> result{still_running};
  std::thread{[&] {
    refuse_requests_while_paused();
    result = make_request(wanted, url, settings);
  }}.join();
  return result;
}

TEST_F(HttpHelperWait, AThreadThatAResumeComesThroughIsRefusedWhilePaused) {
  pause_http_requests();
  EXPECT_EQ(make_request_or_refuse(method::post, cloud.url(), &settings), http_would_block);
  EXPECT_EQ(make_request_or_refuse(method::get, cloud.url(), &settings), -1);
  EXPECT_THAT(cloud.requests(), IsEmpty());
  resume_http_requests();
  EXPECT_EQ(make_request_or_refuse(method::post, cloud.url(), &settings), 0);
}

TEST_F(HttpHelperWait, APauseGetsSuchAThreadOutOfTheWaitForItsTurn) {
  const log_capture log;
  pause_http_requests();
  const request_thread holder{method::get, cloud.url(), &settings};
  ASSERT_TRUE(reaches_the_gate());  // with the turn
  EXPECT_EQ(make_request_or_refuse(method::post, cloud.url(), &settings), http_would_block);
  resume_http_requests();
  EXPECT_EQ(holder.wait(), 0);
}

TEST_F(HttpHelperWait, PausedRequestWaitsEvenWithoutAHandle) {
  curl_probe probe;
  probe.fail_easy_init();
  const log_capture log;
  pause_http_requests();
  const request_thread request{method::post, cloud.url(), &settings};
  ASSERT_TRUE(reaches_the_gate());
  EXPECT_EQ(request.result(), still_running);
  EXPECT_THAT(logged_so_far(), Not(HasSubstr("curl initialization error")));
  resume_http_requests();
  EXPECT_EQ(request.wait(), http_post_failed);
  EXPECT_THAT(logged_so_far(), HasSubstr("curl initialization error"));
}

TEST_F(HttpHelperWait, LaterRequestsQueueBehindAPausedOne) {
  const log_capture log;
  pause_http_requests();
  const request_thread first{method::get, cloud.url(), &settings};
  ASSERT_TRUE(reaches_the_gate());
  const request_thread second{method::post, cloud.url(), &settings};
  const request_thread third{method::get, cloud.url(), &settings};
  resume_http_requests();
  EXPECT_EQ(first.wait(), 0);
  EXPECT_EQ(second.wait(), 0);
  EXPECT_EQ(third.wait(), 0);
  EXPECT_EQ(cloud.requests().size(), 3U);
}

TEST_F(HttpHelperWait, RequestsRunOneAtATime) {
  std::atomic<bool> go{false};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      while (!go) {
        std::this_thread::yield();
      }
      for (int n = 0; n < 5; ++n) {
        if (make_request(method::get, cloud.url(), &settings) != 0) ++failures;
      }
    });
  }
  const log_capture log;
  go = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(cloud.requests().size(), 40U);
  // A request's lines stand together: none begins before the one in front of it has ended.
  const std::string logged = logged_so_far();
  size_t at = 0;
  for (int n = 0; n < 40; ++n) {
    const size_t begin = logged.find("Setup URL for CURL handle.\n", at);
    const size_t end = logged.find("Deleting CURL handle.\n", at);
    ASSERT_NE(end, std::string::npos);
    ASSERT_LT(begin, end);
    ASSERT_EQ(logged.substr(begin + 1, end - begin).find("Setup URL"), std::string::npos);
    at = end + 1;
  }
}

TEST_F(HttpHelperWait, StoppedThreadLeavesThePauseGateAndGivesItsTurnBack) {
  const log_capture log;
  pause_http_requests();
  {
    request_thread getting{method::get, cloud.url(), &settings};
    ASSERT_TRUE(reaches_the_gate());
    getting.stop_at_the_gate();
    EXPECT_EQ(getting.wait(), -1);
    request_thread posting{method::post, cloud.url(), &settings};
    ASSERT_TRUE(reaches_the_gate(2));
    posting.stop_at_the_gate();
    EXPECT_EQ(posting.wait(), http_post_failed);
  }
  EXPECT_THAT(cloud.requests(), IsEmpty());
  EXPECT_THAT(logged_so_far(), Not(HasSubstr("failed with")));
  EXPECT_THAT(logged_so_far(), Not(HasSubstr("Setup URL")));
  EXPECT_EQ(http_requests_paused(), 1);
  resume_http_requests();
  EXPECT_EQ(get(cloud.url()), 0);
}

TEST_F(HttpHelperWait, StoppedThreadLeavesTheQueue) {
  const log_capture log;
  pause_http_requests();
  const request_thread holder{method::get, cloud.url(), &settings};
  ASSERT_TRUE(reaches_the_gate());
  for (int round = 0; round < 50; ++round) {  // some are stopped before they wait, some while they do
    const method wanted = round % 2 == 0 ? method::get : method::post;
    request_thread queued{wanted, cloud.url(), &settings};
    for (int i = 0; i < round; ++i) {
      std::this_thread::yield();
    }
    queued.stop_in_the_queue();
    EXPECT_EQ(queued.wait(), wanted == method::get ? -1 : http_post_failed);
  }
  EXPECT_EQ(count_of(logged_so_far(), held_back), 1U);
  EXPECT_EQ(holder.result(), still_running);
  resume_http_requests();
  EXPECT_EQ(holder.wait(), 0);
  EXPECT_EQ(cloud.requests().size(), 1U);
  EXPECT_EQ(get(cloud.url()), 0);
}

TEST_F(HttpHelperWait, ThreadThatIsToStopMakesNoRequest) {
  const log_capture log;
  int get_result = still_running;
  int post_result = still_running;
  std::thread{[&] {
    const std::atomic<int> keep_going{0};
    wait_only_while(&keep_going);
    get_result = get(cloud.url());
    post_result = post(cloud.url());
  }}.join();
  EXPECT_EQ(get_result, -1);
  EXPECT_EQ(post_result, http_post_failed);
  EXPECT_THAT(cloud.requests(), IsEmpty());
  EXPECT_THAT(logged_so_far(), IsEmpty());
}

}  // namespace
