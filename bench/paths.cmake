# Messages on their way: from the broker's socket to a handler.
orvel_bench_program(bench_peer peers/bench_peer.cpp peers/link.cpp peers/sink.cpp)
target_link_libraries(bench_peer PRIVATE OpenSSL::SSL Threads::Threads)
orvel_bench_program(bench_handler peers/handler.c)

orvel_bench_program(floor_sockets floor/floor_sockets.c floor/log_line.c)
target_include_directories(floor_sockets PRIVATE .)
target_link_libraries(floor_sockets PRIVATE usi)
orvel_bench_program(floor_programs floor/floor_programs.c)
target_link_libraries(floor_programs PRIVATE usi)
orvel_bench_program(floor_tls floor/floor_tls.c)
target_link_libraries(floor_tls PRIVATE OpenSSL::SSL)
