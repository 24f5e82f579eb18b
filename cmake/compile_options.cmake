# Compile and link options of our own code: orvel_options(target) applies them.

add_library(orvel_options INTERFACE)
target_compile_options(orvel_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
# 64-bit sizes, inode numbers and times on 32-bit devices too.
target_compile_definitions(orvel_options INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(orvel_options INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety>)
endif()

if(ORVEL_SANITIZE)
  target_compile_options(orvel_options INTERFACE
    -fsanitize=${ORVEL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -O1)
  target_link_options(orvel_options INTERFACE -fsanitize=${ORVEL_SANITIZE})
elseif(CMAKE_BUILD_TYPE MATCHES "Release|MinSizeRel|RelWithDebInfo")
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES CXX)
  target_compile_options(orvel_options INTERFACE
    -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong -ffunction-sections -fdata-sections)
  target_link_options(orvel_options INTERFACE
    -pie -Wl,-z,relro,-z,now -Wl,-z,noexecstack -Wl,--gc-sections -Wl,--as-needed $<$<CONFIG:Release>:-s>)
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")

# What the product adds: no exceptions and no run-time type information (tests link GoogleTest, which uses both).
add_library(orvel_product_options INTERFACE)
target_link_libraries(orvel_product_options INTERFACE orvel_options)
target_compile_options(orvel_product_options INTERFACE -fno-exceptions -fno-rtti)
