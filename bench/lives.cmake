# Whole lives: from exec to connected and idle.
orvel_bench_program(bench_service peers/service.cpp)
target_link_libraries(bench_service PRIVATE OpenSSL::SSL Threads::Threads)

orvel_bench_program(floor_bare_agent floor/bare_agent.c)
target_link_libraries(floor_bare_agent PRIVATE usi CURL::libcurl OpenSSL::SSL OpenSSL::Crypto PkgConfig::CJSON)
