#include "delivery/mt_queue.h"

#include "core/log.h"
#include "core/owned.h"
#include "core/sync.h"

#include <new>

namespace {

constexpr char log_source[] = "mt_queue";

struct queue_entry {
  void* item;
  uint32_t charged_size;
};

}  // namespace

// A ring: nothing is allocated for an item that comes, so that nothing small is left between big items that have gone.
struct mt_queue {
  sync_mutex lock{lock_rank::delivery_queue};
  uint32_t dropped GUARDED_BY(lock) = 0;  ///< since creation; printed as a signed number
  int first GUARDED_BY(lock) = 0;         ///< where the oldest item is
  int count GUARDED_BY(lock) = 0;
  uint32_t memory GUARDED_BY(lock) = 0;  ///< sum of the charged sizes
  queue_entry entries[queue_count_limit] GUARDED_BY(lock);
};

namespace {

bool has_room(const mt_queue& queue, uint32_t size) REQUIRES(queue.lock) {
  const uint64_t memory_needed = uint64_t{queue.memory} + size + queue_node_overhead;
  return queue.count < queue_count_limit && memory_needed <= queue_memory_limit;
}

void append(mt_queue& queue, void* item, uint32_t charged_size) REQUIRES(queue.lock) {
  queue.entries[(queue.first + queue.count) % queue_count_limit] = {item, charged_size};
  ++queue.count;
  queue.memory += charged_size;
}

// Takes the first item; false when there is none.
bool take_first(mt_queue& queue, void** item) REQUIRES(queue.lock) {
  if (queue.count == 0) return false;
  const queue_entry& oldest = queue.entries[queue.first];
  *item = oldest.item;
  queue.memory -= oldest.charged_size;
  queue.first = (queue.first + 1) % queue_count_limit;
  --queue.count;
  return true;
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

int mt_queue_take(mt_queue* queue, void** item) {
  const scoped_lock lock{queue->lock};
  return take_first(*queue, item) ? 1 : 0;  // model: queue.take
}

void* mt_queue_dequeue(mt_queue* queue) {
  if (queue == nullptr) {
    log_warning("Trying to dequeue uncreated queue.\n");
    return nullptr;
  }
  void* item = nullptr;
  if (mt_queue_take(queue, &item) == 0) log_warning("Trying to dequeue empty queue.\n");
  return item;
}

int mt_queue_is_empty(mt_queue* queue) {
  if (queue == nullptr) {
    log_warning("Trying to check uncreated queue.\n");
    return -1;
  }
  const scoped_lock lock{queue->lock};
  return queue->count == 0 ? 1 : 0;  // model: queue.test
}

void mt_queue_destroy(mt_queue* queue) {
  if (queue == nullptr) {
    log_warning("Trying to destroy uncreated queue.\n");
    return;
  }
  pthread_mutex_destroy(&queue->lock.handle);
  std::free(queue);
}
