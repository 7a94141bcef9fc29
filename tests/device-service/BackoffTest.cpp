#include "mqtt/Backoff.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <vector>

namespace {

using Lumo::Mqtt::Backoff;
using std::chrono::milliseconds;

// The n-th waits of many that begin at once.
std::vector<milliseconds> manyWaits(int n) {
  constexpr int kThings = 1000;
  std::vector<milliseconds> waits;
  for (int thing = 0; thing < kThings; ++thing) {
    Backoff backoff;
    for (int i = 1; i < n; ++i) backoff.Next();
    waits.push_back(backoff.Next());
  }
  return waits;
}

TEST(BackoffTest, AWaitLiesAnywhereInItsWindowAndTheWindowDoublesUpToThirtySeconds) {
  constexpr std::array<int, 7> kWindows{1000, 2000, 4000, 8000, 16'000, 30'000, 30'000};
  for (std::size_t n = 0; n < kWindows.size(); ++n) {
    const milliseconds window(kWindows[n]);
    const std::vector<milliseconds> waits = manyWaits(static_cast<int>(n) + 1);
    const auto [shortest, longest] = std::minmax_element(waits.begin(), waits.end());
    EXPECT_GT(*shortest, milliseconds(0));
    EXPECT_LE(*longest, window);
    // A thousand of them leave no tenth of it empty.
    std::array<int, 10> tenths{};
    for (const milliseconds wait : waits) {
      ++tenths.at(static_cast<std::size_t>((wait.count() - 1) * 10 / window.count()));
    }
    EXPECT_GT(*std::min_element(tenths.begin(), tenths.end()), 40) << window.count();
  }
}

TEST(BackoffTest, BeginsAgainAfterAReset) {
  Backoff backoff;
  for (int i = 0; i < 10; ++i) backoff.Next();
  backoff.Reset();
  EXPECT_LE(backoff.Next(), Backoff::kFirstWindow);
}

}  // namespace
