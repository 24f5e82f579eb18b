#include "delivery/mt_queue.h"

#include "core/log.h"
#include "core/owned.h"
#include "core/sync.h"

#include <new>

namespace {

constexpr char log_source[] = "mt_queue";

struct queue_node {
  void* item;
  uint32_t charged_size;
  queue_node* next;
};

}  // namespace

struct mt_queue {
  sync_mutex lock{lock_rank::delivery_queue};
  queue_node* head GUARDED_BY(lock) = nullptr;
  queue_node* tail GUARDED_BY(lock) = nullptr;
  uint32_t dropped GUARDED_BY(lock) = 0;  ///< since creation; printed as a signed number
  int32_t count GUARDED_BY(lock) = 0;
  uint32_t memory GUARDED_BY(lock) = 0;  ///< sum of the charged sizes
};

namespace {

bool has_room(const mt_queue& queue, uint32_t size) REQUIRES(queue.lock) {
  const uint64_t memory_needed = uint64_t{queue.memory} + size + queue_node_overhead;
  return queue.count < queue_count_limit && memory_needed <= queue_memory_limit;
}

void append(mt_queue& queue, void* item, uint32_t charged_size) REQUIRES(queue.lock) {
  auto* node = static_cast<queue_node*>(must_allocate(sizeof(queue_node), ALLOCATION("malloc().\n", 1)));
  *node = {item, charged_size, nullptr};
  if (queue.tail != nullptr) {
    queue.tail->next = node;
  } else {
    queue.head = node;
  }
  queue.tail = node;
  ++queue.count;
  queue.memory += charged_size;
}

// The first node, now the caller's, or null.
queue_node* unlink_first(mt_queue& queue) REQUIRES(queue.lock) {
  queue_node* first = queue.head;
  if (first == nullptr) return nullptr;
  queue.head = first->next;
  if (queue.head == nullptr) queue.tail = nullptr;
  --queue.count;
  queue.memory -= first->charged_size;
  return first;
}

}  // namespace

mt_queue* mt_queue_create() {
  return new (must_allocate(sizeof(mt_queue), ALLOCATION("malloc().\n", 1))) mt_queue;
}

int mt_queue_enqueue(void* item, mt_queue* queue, uint32_t size) {
  if (queue == nullptr) {
    log_warning("Trying to enqueue uncreated queue.\n");
    return -1;
  }
  int dropped = 0;
  int memory = 0;
  {
    const scoped_lock lock{queue->lock};
    if (has_room(*queue, size)) {
      append(*queue, item, size + queue_node_overhead);  // model: queue.append
      return 0;
    }
    dropped = static_cast<int>(++queue->dropped);  // model: queue.refuse
    memory = static_cast<int>(queue->memory);
  }
  log_warning("Queue full. Dropped %d packets. Memory usage is %d\n", dropped, memory);
  return -1;
}

void* mt_queue_dequeue(mt_queue* queue) {
  if (queue == nullptr) {
    log_warning("Trying to dequeue uncreated queue.\n");
    return nullptr;
  }
  queue_node* first = nullptr;
  {
    const scoped_lock lock{queue->lock};
    first = unlink_first(*queue);  // model: queue.take
  }
  if (first == nullptr) {
    log_warning("Trying to dequeue empty queue.\n");
    return nullptr;
  }
  void* item = first->item;
  std::free(first);
  return item;
}

int mt_queue_is_empty(mt_queue* queue) {
  if (queue == nullptr) {
    log_warning("Trying to check uncreated queue.\n");
    return -1;
  }
  const scoped_lock lock{queue->lock};
  return queue->head == nullptr ? 1 : 0;  // model: queue.test
}

void mt_queue_destroy(mt_queue* queue) {
  if (queue == nullptr) {
    log_warning("Trying to destroy uncreated queue.\n");
    return;
  }
  {
    const scoped_lock lock{queue->lock};
    while (queue_node* first = unlink_first(*queue)) {
      std::free(first);
    }
  }
  pthread_mutex_destroy(&queue->lock.handle);
  std::free(queue);
}
