#pragma once

// Which sanitizer this test program is built with, for the few tests that can't run under one.
#if defined(__has_feature)
#define ORVEL_HAS_FEATURE(name) __has_feature(name)
#else
#define ORVEL_HAS_FEATURE(name) 0
#endif

#if defined(__SANITIZE_ADDRESS__) || ORVEL_HAS_FEATURE(address_sanitizer)
#define ORVEL_ADDRESS_SANITIZER 1
#else
#define ORVEL_ADDRESS_SANITIZER 0
#endif

#if defined(__SANITIZE_THREAD__) || ORVEL_HAS_FEATURE(thread_sanitizer)
#define ORVEL_THREAD_SANITIZER 1
#else
#define ORVEL_THREAD_SANITIZER 0
#endif

constexpr bool under_address_sanitizer = ORVEL_ADDRESS_SANITIZER != 0;
constexpr bool under_thread_sanitizer = ORVEL_THREAD_SANITIZER != 0;
constexpr bool under_sanitizer = under_address_sanitizer || under_thread_sanitizer;
