#pragma once
// VEX_TEST_SANITIZED: this build carries a sanitizer with memory of its own. gcc and clang say so in different ways.

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VEX_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VEX_TEST_SANITIZED 1
#endif
#endif
