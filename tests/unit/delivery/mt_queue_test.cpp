#include "delivery/mt_queue.h"

#include "handler_ends.h"
#include "log_capture.h"
#include "log_lines.h"

#include <gmock/gmock.h>
#include <memory>

namespace {

using testing::ElementsAre;

using queue_ptr = std::unique_ptr<mt_queue, releaser<mt_queue_destroy>>;

TEST(MtQueue, NewQueueIsEmpty) {
  const queue_ptr queue{mt_queue_create()};
  EXPECT_EQ(mt_queue_is_empty(queue.get()), 1);
}

TEST(MtQueue, ItemsLeaveInOrderOfArrival) {
  const queue_ptr queue{mt_queue_create()};
  int items[3] = {};
  for (int& item : items) {
    EXPECT_EQ(mt_queue_enqueue(&item, queue.get(), 1), 0);
  }
  EXPECT_EQ(mt_queue_is_empty(queue.get()), 0);
  for (int& item : items) {
    EXPECT_EQ(mt_queue_dequeue(queue.get()), &item);
  }
  EXPECT_EQ(mt_queue_is_empty(queue.get()), 1);
}

TEST(MtQueue, EmptiedQueueTakesItemsAgain) {
  const queue_ptr queue{mt_queue_create()};
  int items[2] = {};
  for (int& item : items) {
    EXPECT_EQ(mt_queue_enqueue(&item, queue.get(), 1), 0);
    EXPECT_EQ(mt_queue_dequeue(queue.get()), &item);
    EXPECT_EQ(mt_queue_is_empty(queue.get()), 1);
  }
}

TEST(MtQueue, TakingSaysWhetherThereWasAnItemAndLogsNothing) {
  const queue_ptr queue{mt_queue_create()};
  int item = 0;
  void* taken = nullptr;
  log_capture log;
  EXPECT_EQ(mt_queue_take(queue.get(), &taken), 0);
  EXPECT_EQ(mt_queue_enqueue(&item, queue.get(), 1), 0);
  EXPECT_EQ(mt_queue_take(queue.get(), &taken), 1);
  EXPECT_EQ(taken, &item);
  EXPECT_EQ(mt_queue_take(queue.get(), &taken), 0);
  EXPECT_EQ(log.text(), "");
}

TEST(MtQueue, ItemsThatComeAndGoInWavesKeepTheirOrder) {
  const queue_ptr queue{mt_queue_create()};
  int items[100] = {};
  for (const int wave : {1, 100, 3, 50}) {
    for (int i = 0; i < wave; ++i) {
      ASSERT_EQ(mt_queue_enqueue(&items[i], queue.get(), 1), 0);
    }
    for (int i = 0; i < wave; ++i) {
      ASSERT_EQ(mt_queue_dequeue(queue.get()), &items[i]) << i << " of " << wave;
    }
  }
}

TEST(MtQueue, ThousandItemsFitAndEachFurtherOneIsCountedAsDropped) {
  const queue_ptr queue{mt_queue_create()};
  int item = 0;
  log_capture log;
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(mt_queue_enqueue(&item, queue.get(), 3), 0) << i;
  }
  EXPECT_EQ(mt_queue_enqueue(&item, queue.get(), 3), -1);
  EXPECT_EQ(mt_queue_enqueue(&item, queue.get(), 3), -1);
  EXPECT_EQ(mt_queue_dequeue(queue.get()), &item);
  EXPECT_EQ(mt_queue_enqueue(&item, queue.get(), 3), 0);
  EXPECT_EQ(mt_queue_enqueue(&item, queue.get(), 3), -1);
  EXPECT_THAT(messages(log.text()),
              ElementsAre("WARNING: Queue full. Dropped 1 packets. Memory usage is 15000",
                          "WARNING: Queue full. Dropped 2 packets. Memory usage is 15000",
                          "WARNING: Queue full. Dropped 3 packets. Memory usage is 15000"));
}

struct size_case {
  uint32_t held;  ///< size of the item that is in the queue already; 0: none is
  uint32_t size;
  int result;
};

TEST(MtQueue, MemoryLimitIsReachedExactly) {
  constexpr size_case cases[] = {
      {0, 0, 0},
      {0, 3999988, 0},
      {0, 3999989, -1},
      {0, UINT32_MAX, -1},
      {0, UINT32_MAX - 11, -1},
      {100, 3999988 - 112, 0},
      {100, 3999988 - 111, -1},
      {3999976, 0, 0},
      {3999977, 0, -1},
      {3999988, UINT32_MAX - 3999987, -1},
  };
  for (const size_case& each : cases) {
    const queue_ptr queue{mt_queue_create()};
    int item = 0;
    if (each.held != 0) {
      ASSERT_EQ(mt_queue_enqueue(&item, queue.get(), each.held), 0);
    }
    EXPECT_EQ(mt_queue_enqueue(&item, queue.get(), each.size), each.result)
        << each.held << " + " << each.size;
  }
}

TEST(MtQueue, TakingAnItemGivesItsMemoryBack) {
  const queue_ptr queue{mt_queue_create()};
  int item = 0;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(mt_queue_enqueue(&item, queue.get(), 3999988), 0);
    EXPECT_EQ(mt_queue_enqueue(&item, queue.get(), 0), -1);
    EXPECT_EQ(mt_queue_dequeue(queue.get()), &item);
  }
}

TEST(MtQueue, TakingFromAnEmptyQueueIsLogged) {
  const queue_ptr queue{mt_queue_create()};
  log_capture log;
  EXPECT_EQ(mt_queue_dequeue(queue.get()), nullptr);
  EXPECT_THAT(messages(log.text()), ElementsAre("WARNING: Trying to dequeue empty queue."));
}

TEST(MtQueue, QueueThatWasNotCreatedIsRefusedByEveryOperation) {
  int item = 0;
  log_capture log;
  EXPECT_EQ(mt_queue_enqueue(&item, nullptr, 1), -1);
  EXPECT_EQ(mt_queue_dequeue(nullptr), nullptr);
  EXPECT_EQ(mt_queue_is_empty(nullptr), -1);
  mt_queue_destroy(nullptr);
  EXPECT_THAT(messages(log.text()), ElementsAre("WARNING: Trying to enqueue uncreated queue.",
                                                "WARNING: Trying to dequeue uncreated queue.",
                                                "WARNING: Trying to check uncreated queue.",
                                                "WARNING: Trying to destroy uncreated queue."));
}

TEST(MtQueue, LinesCarryTheQueuesTag) {
  log_capture log;
  mt_queue_destroy(nullptr);
  EXPECT_THAT(log.text(), testing::StartsWith("mt_queue: "));
}

TEST(MtQueue, AFullQueueKeepsItsOrderWhereverItBegins) {
  const queue_ptr queue{mt_queue_create()};
  int items[queue_count_limit] = {};
  for (const int start : {1, 333, 999}) {
    for (int i = 0; i < start; ++i) {
      ASSERT_EQ(mt_queue_enqueue(&items[0], queue.get(), 1), 0);
      ASSERT_EQ(mt_queue_dequeue(queue.get()), &items[0]);
    }
    for (int& item : items) {
      ASSERT_EQ(mt_queue_enqueue(&item, queue.get(), 1), 0);
    }
    for (int& item : items) {
      ASSERT_EQ(mt_queue_dequeue(queue.get()), &item);
    }
  }
}

// Leaks show under the address sanitizer.
TEST(MtQueue, DestroyedQueueLeavesTheItems) {
  int items[2] = {1, 2};
  {
    const queue_ptr queue{mt_queue_create()};
    for (int& item : items) {
      EXPECT_EQ(mt_queue_enqueue(&item, queue.get(), 1), 0);
    }
  }
  EXPECT_EQ(items[1], 2);
}

TEST(MtQueue, OrderIsKeptBetweenThreads) {
  const queue_ptr queue{mt_queue_create()};
  std::vector<int> items(20'000);
  std::thread producer{[&] {
    for (int& item : items) {
      while (mt_queue_enqueue(&item, queue.get(), 100) != 0) {
        std::this_thread::yield();
      }
    }
  }};
  for (int& item : items) {
    while (mt_queue_is_empty(queue.get()) != 0) {
      std::this_thread::yield();
    }
    ASSERT_EQ(mt_queue_dequeue(queue.get()), &item);
  }
  producer.join();
  EXPECT_EQ(mt_queue_is_empty(queue.get()), 1);
}

}  // namespace
