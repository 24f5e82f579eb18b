// Messages from the bytes of the broker, through the queue, to the thread that delivers them, in bursts that the
// queue holds. The two threads run one after the other and not at once, so that the times are those of the work and
// not of the machine's processors: the worker is held up while a burst is read, and drains the queue afterwards. What
// is measured is the reading and the draining; the hand-over from one thread to the other between them is not.

#include "broker/packet_parser.h"
#include "delivery/message_sender.h"
#include "delivery/mt_queue.h"
#include "floor/floor.h"
#include "functions/benchmarks.h"
#include "functions/packets.h"

#include <algorithm>
#include <semaphore>
#include <thread>
#include <time.h>

namespace {

// The time that the calling thread has had a processor for, in seconds: other programs on the machine don't count.
double busy_time() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

const std::string handler_name = "sink";

// What one burst takes of the queue's limits.
size_t burst_of(size_t payload_size) {
  const size_t charged = payload_size + handler_name.size() + 24;
  return std::min<size_t>(queue_count_limit, queue_memory_limit / charged);
}

// How the worker is held up and let go. One semaphore hands over what the other fields hold.
struct worker_gate {
  std::binary_semaphore held{0};
  std::binary_semaphore open{0};
  std::binary_semaphore drained{0};
  size_t left = 0;  // messages until the queue is drained
  bool hold_next = true;
  double opened = 0;
  double ended = 0;

  void hold_worker() {
    hold_next = false;
    held.release();
    open.acquire();
    opened = busy_time();
  }

  double drain(size_t messages) {
    left = messages;
    open.release();
    drained.acquire();
    return ended - opened;
  }

  void end_drain() {
    ended = busy_time();
    hold_next = true;
    drained.release();
  }
};

// Outlives main(): so does the worker.
worker_gate& gate() {
  static auto* one = new worker_gate;
  return *one;
}

// What the agent's worker does with a message that is addressed to the agent itself: here it is the end of the way.
int take_message(const void* /*data*/, uint32_t /*length*/) {
  if (gate().hold_next) {
    gate().hold_worker();
  } else if (--gate().left == 0) {
    gate().end_drain();
  }
  return 0;
}

void start_pool() {
  static const bool started = [] {
    set_local_requests({[] { return handler_name.c_str(); }, take_message});
    return init_thread_pool() == 0;
  }();
  must(started, "pool");
}

std::vector<unsigned char> burst_bytes(size_t messages, size_t payload_size) {
  std::vector<unsigned char> stream;
  for (size_t i = 0; i < messages; ++i) {
    append_message(&stream, handler_name, payload_size);
  }
  return stream;
}

// Runs `burst(n)`, which gives the time for n messages, until all are through.
template <typename Burst> void measure_bursts(benchmark::State& state, Burst burst) {
  const auto most = burst_of(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    double spent = 0;
    for (auto left = static_cast<size_t>(state.range(1)); left > 0; left -= std::min(left, most)) {
      spent += burst(std::min(left, most));
    }
    state.SetIterationTime(spent);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * state.range(1));
}

void queue_of_agent(benchmark::State& state) {
  start_pool();
  const auto payload_size = static_cast<size_t>(state.range(0));
  const std::vector<unsigned char> one = burst_bytes(1, payload_size);
  const std::vector<unsigned char> all = burst_bytes(burst_of(payload_size), payload_size);
  packet_parser* parser = packet_parser_create(nullptr);
  measure_bursts(state, [&](size_t messages) {
    packet_parse(parser, &session_callbacks, one.data(), one.size());  // the message that holds up the worker
    gate().held.acquire();
    const auto begin = busy_time();
    packet_parse(parser, &session_callbacks, all.data(), messages * one.size());
    return busy_time() - begin + gate().drain(messages);
  });
  packet_parser_free(parser);
}

void take_from_floor(std::stop_token stop) {
  for (;;) {
    gate().hold_worker();
    if (stop.stop_requested()) return;
    for (; gate().left > 0; --gate().left) {
      floor_message* message = floor_pop();
      must(message != nullptr, "floor_pop");
      floor_free(message);
    }
    gate().end_drain();
  }
}

void queue_of_floor(benchmark::State& state, decltype(floor_push)* push) {
  const auto payload_size = static_cast<size_t>(state.range(0));
  const std::vector<unsigned char> payloads(burst_of(payload_size) * payload_size, 'x');
  std::jthread worker{take_from_floor};
  measure_bursts(state, [&](size_t messages) {
    gate().held.acquire();
    const auto begin = busy_time();
    for (size_t i = 0; i < messages; ++i) {
      must(push(handler_name.data(), handler_name.size(), payloads.data() + i * payload_size,
                static_cast<uint32_t>(payload_size)) == 0,
           "push");
    }
    return busy_time() - begin + gate().drain(messages);
  });
  gate().held.acquire();
  worker.request_stop();
  gate().open.release();
  worker.join();
  gate().hold_next = true;
}

// Size of the payload, number of messages.
void sizes_and_counts(benchmark::internal::Benchmark* each) {
  for (const int64_t size : {16, 64, 256, 1024, 4096, 16384, 65536}) {
    for (const int64_t count : {1'000, 10'000, 100'000}) {
      each->Args({size, count});
    }
  }
  each->UseManualTime();
}

BENCHMARK(queue_of_agent)->Name("queue/agent")->Apply(sizes_and_counts);
BENCHMARK_CAPTURE(queue_of_floor, , floor_push)->Name("queue/floor")->Apply(sizes_and_counts);
BENCHMARK_CAPTURE(queue_of_floor, , floor_push_apart)->Name("queue/apart")->Apply(sizes_and_counts);

}  // namespace
