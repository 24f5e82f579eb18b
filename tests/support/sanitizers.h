#pragma once

// Which sanitizer this test program is built with, for the few tests that can't run under one.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORVEL_ADDRESS_SANITIZER 1
#endif
#if __has_feature(thread_sanitizer)
#define ORVEL_THREAD_SANITIZER 1
#endif
#endif

#if defined(__SANITIZE_ADDRESS__) || defined(ORVEL_ADDRESS_SANITIZER)
constexpr bool under_address_sanitizer = true;
#else
constexpr bool under_address_sanitizer = false;
#endif

#if defined(__SANITIZE_THREAD__) || defined(ORVEL_THREAD_SANITIZER)
constexpr bool under_thread_sanitizer = true;
#else
constexpr bool under_thread_sanitizer = false;
#endif
