#include "delivery/message_sender.h"

#include "core/log.h"
#include "core/owned.h"
#include "core/sync.h"
#include "delivery/mt_queue.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <pthread.h>
#include <sched.h>

namespace {

constexpr char log_source[] = "message_sender";

constexpr uint32_t message_overhead = 12;  ///< bytes charged for each message on top of data and name

// One for each message on the queue, one for the message that the worker delivers, one for the message that comes next
// and may still be refused.
constexpr int record_count = queue_count_limit + 2;

struct queued_message {
  char* handler_name;
  void* data;
  uint32_t length;
};

// The record itself stays: it is one of the pool's.
void release_message(queued_message* message) {
  std::free(message->handler_name);
  std::free(message->data);
}
using message_ptr = std::unique_ptr<queued_message, releaser<release_message>>;

// The pool. Locks are taken in the order in which they stand here; the queue's own one comes last.
// No wake-up is lost: a producer puts its message on the queue before it looks, under the wait lock, whether a worker
// waits, and a worker looks at the queue under the wait lock before it waits. A worker gives itself up only under
// the pool lock and with an empty queue, so a producer that counts on it is always right.
struct pool_state {
  sync_mutex pool_lock{lock_rank::delivery_pool};
  mt_queue* queue GUARDED_BY(pool_lock) = nullptr;
  pthread_attr_t thread_attributes GUARDED_BY(pool_lock){};
  int available GUARDED_BY(pool_lock) = 0;    ///< live workers: 0 or 1
  int next_record GUARDED_BY(pool_lock) = 0;  ///< which record the next message gets

  sync_mutex wait_lock{lock_rank::delivery_wait};
  sync_condition work;  ///< a message, or stop
  int waiting GUARDED_BY(wait_lock) = 0;
  bool stop GUARDED_BY(wait_lock) = false;
};
constinit pool_state pool{};

// Used in turn, and passed from the producer to the worker through the queue. Messages leave in the order in which they
// came, and the only worker lets go of one before it takes the next, under the queue's lock, which the producer takes
// before it comes round: so the next record is always one that nobody looks at. Beside the pool because it begins as
// zeros, which take no room in the program.
constinit queued_message records[record_count]{};

// The worker belongs to no signal: a delivery must not be cut short.
void block_all_signals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

// Waits for a message or for stop. The message, or null on stop and when the wait fails.
message_ptr wait_for_message(mt_queue* queue) {
  message_ptr message;
  {
    const scoped_lock lock{pool.wait_lock};  // model: wait.lock
    int failure = 0;
    ++pool.waiting;                                                        // model: wait.count
    while (failure == 0 && mt_queue_is_empty(queue) != 0 && !pool.stop) {  // model: wait.test
      failure = pool.work.wait(pool.wait_lock);                            // model: wait.wait
    }
    --pool.waiting;  // model: wait.uncount
    if (failure != 0) return nullptr;
    message.reset(static_cast<queued_message*>(mt_queue_dequeue(queue)));  // model: wait.take
  }
  if (message) log_debug("Getting message from queue after wait.\n");
  return message;
}

message_ptr next_message(mt_queue* queue) {
  void* item = nullptr;
  // model: next.test, next.take
  if (mt_queue_take(queue, &item) == 0) return wait_for_message(queue);  // model: next.wait
  log_debug("Getting message from queue.\n");
  return message_ptr{static_cast<queued_message*>(item)};
}

// True when the worker has nothing left to do and no longer counts.
bool leave_pool(mt_queue* queue) {
  const scoped_lock lock{pool.pool_lock};           // model: leave.lock
  if (mt_queue_is_empty(queue) == 0) return false;  // model: leave.test
  --pool.available;                                 // model: leave.uncount
  return true;
}

// Thread body. The queue outlives it: shutdown destroys the queue only when no worker lives.
void* run_worker(void* argument) {
  auto* queue = static_cast<mt_queue*>(argument);
  block_all_signals();
  log_info("Starting message thread.\n");
  for (;;) {
    if (const message_ptr message = next_message(queue)) {
      send_to_handler(message->handler_name, message->data, message->length);  // model: worker.deliver
    } else if (leave_pool(queue)) {                                            // model: worker.leave
      break;
    }
  }
  log_info("Exiting message thread.\n");
  return nullptr;
}

void start_worker() REQUIRES(pool.pool_lock) {
  pthread_t thread{};
  // model: start_worker.create
  const int result = pthread_create(&thread, &pool.thread_attributes, run_worker, pool.queue);
  if (result != 0) {
    log_error("Failed to create thread ret=%d.\n", result);
    return;
  }
  ++pool.available;  // model: start_worker.count
}

int waiting_workers() {
  const scoped_lock lock{pool.wait_lock};
  return pool.waiting;
}

void wake_worker() {
  const scoped_lock lock{pool.wait_lock};
  pool.work.signal();
}

// Sees to it that a worker takes the message that was just queued.
void announce_message() REQUIRES(pool.pool_lock) {
  const int waiting = waiting_workers();  // model: announce.look
  log_debug("Available threads: %d, waiting threads: %d.\n", pool.available, waiting);
  if (waiting != 0) {
    log_debug("Some threads are waiting... Notifying them.\n");
    wake_worker();  // model: announce.wake
  } else if (pool.available <= 0) {
    start_worker();  // model: announce.start
  } else {
    log_info("Cannot create more threads - limit reached.\n");
  }
}

// What the message costs in the queue. A sum that leaves the 32-bit range is refused like any other that is too big.
uint32_t charged_size(const queued_message& message) {
  const size_t name_length = message.handler_name != nullptr ? std::strlen(message.handler_name) : 0;
  const uint64_t size = uint64_t{message.length} + message_overhead + name_length;
  return static_cast<uint32_t>(std::min<uint64_t>(size, UINT32_MAX));
}

}  // namespace

int init_thread_pool() {
  const scoped_lock lock{pool.pool_lock};
  if (pthread_attr_init(&pool.thread_attributes) != 0) {
    log_error("Failed pthread_attr_init.\n");
    return -1;
  }
  if (pthread_attr_setdetachstate(&pool.thread_attributes, PTHREAD_CREATE_DETACHED) != 0) {
    log_error("Failed pthread_attr_setdetachstate.\n");
    return -1;
  }
  pool.queue = mt_queue_create();
  return 0;
}

int shutdown_thread_pool() {
  int result = 0;
  {
    const scoped_lock lock{pool.wait_lock};
    pool.stop = true;  // model: shutdown.stop
  }
  {
    const scoped_lock lock{pool.pool_lock};
    if (pthread_attr_destroy(&pool.thread_attributes) != 0) {  // model: shutdown.attributes
      log_error("Failed pthread_attr_destroy.\n");
      result = -1;
    }
  }
  pool.work.broadcast();  // model: shutdown.wake
  {
    const scoped_lock lock{pool.pool_lock};
    if (pool.available == 0) {                               // model: shutdown.look
      mt_queue_destroy(std::exchange(pool.queue, nullptr));  // model: shutdown.destroy
      return result;
    }
  }
  // A worker may be in the middle of a delivery. Its end is not awaited: the process ends in another way.
  for (;;) {
    sched_yield();
  }
}

int send_to_queue(char** handler_name, void** data, uint32_t length) {
  const queued_message taken{std::exchange(*handler_name, nullptr), std::exchange(*data, nullptr), length};
  log_debug("Sending message to queue.\n");

  const scoped_lock lock{pool.pool_lock};  // model: send.lock
  message_ptr message{&records[pool.next_record]};
  *message = taken;
  // model: send.enqueue
  if (mt_queue_enqueue(message.get(), pool.queue, charged_size(*message)) != 0) return -1;
  // From here on the message is the worker's, which may have freed it by now.
  static_cast<void>(message.release());
  pool.next_record = (pool.next_record + 1) % record_count;
  log_debug("Added message to queue.\n");
  announce_message();  // model: send.announce
  return 0;
}

int send_to_handler_by_name(const char* handler_name, void** data, uint32_t length) {
  char* name = must_copy(handler_name, ALLOCATION("strdup().\n", 1));
  return send_to_queue(&name, data, length);
}
