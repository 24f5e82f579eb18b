#include "delivery/message_sender.h"

#include "delivery/message_sender_delivery.h"
#include "failing_calls.h"
#include "handler_ends.h"
#include "log_capture.h"
#include "log_lines.h"
#include "sanitizers.h"
#include "settings_file.h"
#include "temp_folder.h"
#include "waiting.h"

#include <atomic>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <mutex>
#include <pthread.h>
#include <sys/wait.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// The pool is one for the process and never ends, so each test runs in a forked process of its own, in which "agent"
// is the name of the handler whose messages end here.

struct received_messages {
  std::mutex lock;
  std::condition_variable changed;
  std::vector<std::string> texts;
  bool held_up = false;  ///< a delivery waits
  bool worker_blocks_signals = false;
};
received_messages& received() {
  static auto* messages_here = new received_messages;  // outlives every thread
  return *messages_here;
}

int receive(const void* data, uint32_t length) {
  sigset_t blocked;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  std::unique_lock lock{received().lock};
  received().worker_blocks_signals =
      sigismember(&blocked, SIGUSR1) == 1 && sigismember(&blocked, SIGTERM) == 1;
  received().texts.emplace_back(static_cast<const char*>(data), length);
  received().changed.notify_all();
  received().changed.wait(lock, [] { return !received().held_up; });
  return 0;
}

void hold_up_deliveries() {
  const std::scoped_lock lock{received().lock};
  received().held_up = true;
}

void let_deliveries_go() {
  const std::scoped_lock lock{received().lock};
  received().held_up = false;
  received().changed.notify_all();
}

// Waits until `count` messages have come; all that came.
std::vector<std::string> wait_for_messages(size_t count) {
  std::unique_lock lock{received().lock};
  received().changed.wait_for(lock, std::chrono::seconds{60},
                              [&] { return received().texts.size() >= count; });
  return received().texts;
}

int send_text(const char* handler, const std::string& text) {
  void* data = std::malloc(text.size() + 1);
  text.copy(static_cast<char*>(data), text.size());
  const int result = send_to_handler_by_name(handler, &data, static_cast<uint32_t>(text.size()));
  EXPECT_EQ(data, nullptr);
  return result;
}

class in_new_process {
public:
  explicit in_new_process(const std::function<void()>& body) {
    const fd_owner log{open(log_file().c_str(), O_CREAT | O_RDWR | O_TRUNC | O_CLOEXEC, 0600)};
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) run(body, log.get());
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status << "\n" << log_text();
    EXPECT_EQ(count_of(log_text(), "Sanitizer"), 0U) << log_text();
  }

  [[nodiscard]] std::vector<std::string> log() const { return messages(log_text()); }

  // In the new process: what was logged so far.
  static std::string log_text() { return read_text_file(log_file()); }
  static bool has_logged(const char* text, size_t times = 1) {
    return eventually([&] { return count_of(log_text(), text) >= times; });
  }

private:
  [[noreturn]] static void run(const std::function<void()>& body, int log) {
    alarm(300);
    dup2(log, STDERR_FILENO);
    options.log_level = level_debug;
    options.console_log = true;
    options.file_log = false;
    set_local_requests({[] { return "agent"; }, receive});
    EXPECT_EQ(init_thread_pool(), 0);
    body();
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }

  static const std::string& log_file() {
    static const temp_folder folder;
    static const std::string path = folder / "log";
    return path;
  }
};

// A worker that is in the middle of a delivery.
void occupy_worker() {
  hold_up_deliveries();
  EXPECT_EQ(send_text("agent", "first"), 0);
  wait_for_messages(1);
}

// The thread yields again and again.
bool is_spinning(std::thread& thread) {
  clockid_t clock{};
  timespec used{};
  return pthread_getcpuclockid(thread.native_handle(), &clock) == 0 && clock_gettime(clock, &used) == 0 &&
         (used.tv_sec > 0 || used.tv_nsec > 20'000'000);
}

TEST(MessageSender, FirstMessageStartsTheWorker) {
  const in_new_process run{[] {
    EXPECT_EQ(send_text("agent", "hello"), 0);
    EXPECT_THAT(wait_for_messages(1), ElementsAre("hello"));
  }};
  EXPECT_THAT(run.log(), ElementsAre("DEBUG: Sending message to queue.", "DEBUG: Added message to queue.",
                                     "DEBUG: Available threads: 0, waiting threads: 0.",
                                     "INFO: Starting message thread.", "DEBUG: Getting message from queue."));
}

TEST(MessageSender, WaitingWorkerIsWoken) {
  const in_new_process run{[] {
    size_t sent = 0;
    EXPECT_TRUE(eventually([&] {
      send_text("agent", std::to_string(sent++));
      wait_for_messages(sent);
      return count_of(in_new_process::log_text(), "Some threads are waiting... Notifying them.") > 0;
    }));
    EXPECT_TRUE(in_new_process::has_logged("Getting message from queue after wait."));
  }};
  EXPECT_THAT(run.log(), testing::Contains("DEBUG: Available threads: 1, waiting threads: 1."));
  EXPECT_THAT(run.log(), testing::Contains("INFO: Starting message thread.").Times(1));
}

TEST(MessageSender, BusyWorkerTakesTheNextMessageAfterThePresentOne) {
  const in_new_process run{[] {
    occupy_worker();
    EXPECT_EQ(send_text("agent", "second"), 0);
    EXPECT_EQ(send_text("agent", "third"), 0);
    EXPECT_EQ(count_of(in_new_process::log_text(), "INFO: Cannot create more threads - limit reached."), 2U);
    EXPECT_THAT(wait_for_messages(1), ElementsAre("first"));
    let_deliveries_go();
    EXPECT_THAT(wait_for_messages(3), ElementsAre("first", "second", "third"));
  }};
  EXPECT_THAT(run.log(), testing::Contains("DEBUG: Available threads: 1, waiting threads: 0.").Times(2));
}

TEST(MessageSender, DeliveriesAreNotInterruptedBySignals) {
  const in_new_process run{[] {
    EXPECT_EQ(send_text("agent", "hello"), 0);
    wait_for_messages(1);
    EXPECT_TRUE(received().worker_blocks_signals);
  }};
}

TEST(MessageSender, MessagesOfEveryProducerArriveInItsOrder) {
  constexpr int producers = 4;
  constexpr int messages_each = 2'000;
  const in_new_process run{[] {
    options.log_level = level_silent;
    std::thread threads[producers];
    for (int producer = 0; producer < producers; ++producer) {
      threads[producer] = std::thread([producer] {
        for (int i = 0; i < messages_each; ++i) {
          while (send_text("agent", std::to_string(producer) + " " + std::to_string(i)) != 0) {
            std::this_thread::yield();
          }
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    const std::vector<std::string> texts = wait_for_messages(producers * messages_each);
    EXPECT_EQ(texts.size(), size_t{producers * messages_each});
    int next[producers] = {};
    for (const std::string& text : texts) {
      const auto producer = static_cast<size_t>(text[0] - '0');
      ASSERT_EQ(text.substr(2), std::to_string(next[producer]++));
    }
  }};
}

// Each message finds the worker about to wait, waiting, or about to look: none may stay behind.
TEST(MessageSender, NoMessageStaysBehindWhenTheWorkerIsAboutToWait) {
  const in_new_process run{[] {
    options.log_level = level_silent;
    for (size_t i = 1; i <= 5'000; ++i) {
      ASSERT_EQ(send_text("agent", "hello"), 0);
      ASSERT_EQ(wait_for_messages(i).size(), i);
    }
  }};
}

TEST(MessageSender, NoMessageStaysBehindWhenTheWorkerIsAboutToEnd) {
  const in_new_process run{[] {
    options.log_level = level_silent;
    const failing_call failing{"pthread_cond_wait", EINVAL, INT_MAX};
    for (size_t i = 1; i <= 2'000; ++i) {
      ASSERT_EQ(send_text("agent", "hello"), 0);
      ASSERT_EQ(wait_for_messages(i).size(), i);
    }
  }};
}

TEST(MessageSender, FullQueueRefusesTheNewestMessageAndKeepsTheRest) {
  const in_new_process run{[] {
    occupy_worker();
    options.log_level = level_warning;
    for (int i = 0; i < 1000; ++i) {
      ASSERT_EQ(send_text("agent", std::to_string(i)), 0);
    }
    EXPECT_EQ(send_text("agent", "lost"), -1);
    EXPECT_EQ(send_text("agent", "lost too"), -1);
    let_deliveries_go();
    const std::vector<std::string> texts = wait_for_messages(1001);
    ASSERT_EQ(texts.size(), 1001U);
    EXPECT_EQ(texts[1], "0");
    EXPECT_EQ(texts[1000], "999");
    EXPECT_EQ(send_text("agent", "last"), 0);
    EXPECT_EQ(wait_for_messages(1002).back(), "last");
  }};
  EXPECT_THAT(in_new_process::log_text(), HasSubstr("Queue full. Dropped 1 packets."));
  EXPECT_THAT(in_new_process::log_text(), HasSubstr("Queue full. Dropped 2 packets."));
}

// The refusal tells what the queue holds. The length is believed without reading: nothing is delivered.
TEST(MessageSender, MessageIsChargedWithNameAndOverhead) {
  const in_new_process run{[] {
    occupy_worker();
    EXPECT_EQ(send_text("event_sink", "10 bytes.."), 0);
    for (const uint32_t length : {3'999'956U - 23U, UINT32_MAX - 11, UINT32_MAX}) {
      char* name = nullptr;
      void* data = nullptr;
      EXPECT_EQ(send_to_queue(&name, &data, length), -1);
    }
    char* name = nullptr;
    void* data = nullptr;
    EXPECT_EQ(send_to_queue(&name, &data, 3'999'956 - 24), 0);
    EXPECT_EQ(send_to_queue(&name, &data, 0), -1);
  }};
  EXPECT_EQ(count_of(in_new_process::log_text(), " packets. Memory usage is 44\n"), 3U);
  EXPECT_THAT(in_new_process::log_text(), HasSubstr("Dropped 4 packets. Memory usage is 4000000\n"));
}

// Leaks show under the address sanitizer, as this test runs in the test process itself.
TEST(MessageSender, PointersAreTakenOverAlsoWithoutAQueue) {
  char* name = strdup("lamp");
  void* data = strdup("lost");
  log_capture log;
  EXPECT_EQ(send_to_queue(&name, &data, 4), -1);
  EXPECT_EQ(name, nullptr);
  EXPECT_EQ(data, nullptr);
  EXPECT_THAT(messages(log.text()),
              ElementsAre("DEBUG: Sending message to queue.", "WARNING: Trying to enqueue uncreated queue."));
}

TEST(MessageSender, MessageWithoutNameIsLostInDelivery) {
  const in_new_process run{[] {
    char* name = nullptr;
    void* data = nullptr;
    EXPECT_EQ(send_to_queue(&name, &data, 0), 0);
    EXPECT_TRUE(in_new_process::has_logged("description is null."));
  }};
}

TEST(MessageSender, WorkerDeliversToListeningHandlers) {
  const listening_handler handler;
  const settings_file settings{{{"q_handler_lamp", handler.endpoint()}}};
  const in_new_process run{[] {
    EXPECT_EQ(send_text("lamp", "hello"), 0);
    EXPECT_TRUE(in_new_process::has_logged("Sent to handler 5 bytes."));
  }};
  EXPECT_EQ(handler.receive(), "hello");
}

TEST(MessageSender, WorkerStartsPrograms) {
  const settings_file settings{{{"q_handler_lamp", "/bin/true"}}};
  const in_new_process run{[] {
    EXPECT_EQ(send_text("lamp", "hello"), 0);
    EXPECT_TRUE(in_new_process::has_logged("Sended 5 bytes to local handler /bin/true."));
    EXPECT_TRUE(eventually([] {
      reap_children();
      return waitpid(-1, nullptr, WNOHANG) == -1;
    }));
  }};
}

TEST(MessageSender, MessageStaysQueuedWhenTheWorkerCannotBeMade) {
  const in_new_process run{[] {
    {
      const failing_call failing{"pthread_create", EAGAIN};
      EXPECT_EQ(send_text("agent", "first"), 0);
    }
    EXPECT_EQ(send_text("agent", "second"), 0);
    EXPECT_THAT(wait_for_messages(2), ElementsAre("first", "second"));
  }};
  EXPECT_EQ(run.log()[3], "WARNING: Failed to create thread ret=11.");
}

TEST(MessageSender, WorkerEndsWhenItCannotWaitAndTheNextMessageStartsAnother) {
  const in_new_process run{[] {
    {
      const failing_call failing{"pthread_cond_wait", EINVAL};
      EXPECT_EQ(send_text("agent", "first"), 0);
      EXPECT_TRUE(in_new_process::has_logged("Exiting message thread."));
    }
    EXPECT_EQ(send_text("agent", "second"), 0);
    EXPECT_THAT(wait_for_messages(2), ElementsAre("first", "second"));
  }};
  EXPECT_THAT(run.log(), testing::Contains("INFO: Starting message thread.").Times(2));
  EXPECT_THAT(run.log(), testing::Contains("DEBUG: Available threads: 0, waiting threads: 0.").Times(2));
}

TEST(MessageSender, FailedPreparationIsLogged) {
  if (under_thread_sanitizer) GTEST_SKIP() << "the sanitizer needs the real calls";
  for (const char* name : {"pthread_attr_init", "pthread_attr_setdetachstate"}) {
    log_capture log;
    const failing_call failing{name, ENOMEM};
    EXPECT_EQ(init_thread_pool(), -1);
    EXPECT_THAT(messages(log.text()), ElementsAre("WARNING: Failed " + std::string{name} + "."));
  }
}

TEST(MessageSender, ShutdownWithoutAWorkerDestroysTheQueue) {
  const in_new_process run{[] {
    EXPECT_EQ(shutdown_thread_pool(), 0);
    EXPECT_EQ(send_text("agent", "lost"), -1);
  }};
  EXPECT_THAT(run.log(),
              ElementsAre("DEBUG: Sending message to queue.", "WARNING: Trying to enqueue uncreated queue."));
}

TEST(MessageSender, ShutdownReportsAttributesThatCannotBeDestroyed) {
  if (under_thread_sanitizer) GTEST_SKIP() << "the sanitizer needs the real calls";
  const in_new_process run{[] {
    const failing_call failing{"pthread_attr_destroy", EINVAL};
    EXPECT_EQ(shutdown_thread_pool(), -1);
    EXPECT_EQ(send_text("agent", "lost"), -1);
  }};
  EXPECT_EQ(run.log()[0], "WARNING: Failed pthread_attr_destroy.");
}

TEST(MessageSender, ShutdownWakesTheWaitingWorker) {
  const in_new_process run{[] {
    EXPECT_EQ(send_text("agent", "hello"), 0);
    wait_for_messages(1);
    // It returns or goes on for ever, depending on whether the worker was quick.
    std::thread{[] { shutdown_thread_pool(); }}.detach();
    EXPECT_TRUE(in_new_process::has_logged("Exiting message thread."));
  }};
  EXPECT_THAT(run.log(), testing::Contains("WARNING: Trying to dequeue empty queue.").Times(1));
}

TEST(MessageSender, ShutdownDuringADeliveryNeverReturns) {
  const in_new_process run{[] {
    occupy_worker();
    std::atomic<bool> returned{false};
    std::thread stopper{[&] {
      shutdown_thread_pool();
      returned = true;
    }};
    EXPECT_TRUE(eventually([&] { return is_spinning(stopper); }));
    EXPECT_EQ(send_text("agent", "second"), 0);
    let_deliveries_go();
    EXPECT_THAT(wait_for_messages(2), ElementsAre("first", "second"));
    EXPECT_TRUE(in_new_process::has_logged("Exiting message thread."));

    // The next message gets a worker that ends as soon as it has nothing to do.
    EXPECT_EQ(send_text("agent", "third"), 0);
    EXPECT_THAT(wait_for_messages(3), ElementsAre("first", "second", "third"));
    EXPECT_TRUE(in_new_process::has_logged("Exiting message thread.", 2));
    EXPECT_FALSE(returned);
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }};
  EXPECT_THAT(run.log(), testing::Contains("INFO: Starting message thread.").Times(2));
}

}  // namespace
