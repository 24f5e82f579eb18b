# Single functions of the agent and of the settings library beside their floors:
# bench_functions [--benchmark_...] FOLDER
orvel_bench_program(bench_functions
  functions/main.cpp
  functions/log.cpp
  functions/parse.cpp
  functions/queue.cpp
  functions/settings.cpp
  floor/commit.c
  floor/log_line.c
  floor/message_queue.c)
target_include_directories(bench_functions PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(bench_functions PRIVATE orvel_agent benchmark::benchmark)
