#pragma once

#include <cstddef>
#include <cstdint>

// A bounded first-in-first-out queue of pointers. Items are never owned by the queue. Any thread.

constexpr int queue_count_limit = 1000;           ///< items
constexpr uint32_t queue_memory_limit = 4000000;  ///< bytes, the overhead of each node included
constexpr uint32_t queue_node_overhead = 12;      ///< bytes charged for each item on top of its size

struct mt_queue;

/// A new empty queue, for mt_queue_destroy(). Lack of memory ends the process with status 1.
[[nodiscard]] mt_queue* mt_queue_create();

/// Appends `item`, charged with `size` + 12 bytes. 0, or -1 when the queue is full (the item stays the caller's;
/// the total of refused items is logged) or null.
[[nodiscard]] int mt_queue_enqueue(void* item, mt_queue* queue, uint32_t size);

/// Takes the first item. Null when the queue is empty or null (both logged).
[[nodiscard]] void* mt_queue_dequeue(mt_queue* queue);

/// As mt_queue_dequeue(), for a caller that doesn't know whether there is an item: 1 and `*item`, or 0 and nothing is
/// logged. Not for null.
[[nodiscard]] int mt_queue_take(mt_queue* queue, void** item);

/// 1 when the queue holds no item, 0 when it does, -1 when it is null (logged).
[[nodiscard]] int mt_queue_is_empty(mt_queue* queue);

/// Frees the queue, not the items in it. Nobody may use it any more.
void mt_queue_destroy(mt_queue* queue);
