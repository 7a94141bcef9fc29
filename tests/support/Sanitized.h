#ifndef TESTS_SANITIZED_H
#define TESTS_SANITIZED_H

// A sanitizer keeps what was freed, and takes memory and time of its own: what a process has then
// tells nothing of what it takes without.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

#endif  // TESTS_SANITIZED_H
