#ifndef TESTS_PLATFORM_LUMO_NEWPROCESS_H
#define TESTS_PLATFORM_LUMO_NEWPROCESS_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <iostream>
#include <string>

// For what only a process can show that has not used TLS yet: runs the test's suite up to here in
// one, and there the body, which must return the expected text. `tearDown` is the suite's.
template <typename Body, typename TearDown>
void ExpectInNewProcess(const Body& body, const TearDown& tearDown, const std::string& expected) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::cerr << body() << std::flush;
        tearDown();
        _exit(0);
      },
      ::testing::ExitedWithCode(0), ::testing::Eq(expected));
}

#endif  // TESTS_PLATFORM_LUMO_NEWPROCESS_H
