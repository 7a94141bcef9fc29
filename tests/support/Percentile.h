#ifndef TESTS_SUPPORT_PERCENTILE_H
#define TESTS_SUPPORT_PERCENTILE_H

#include <algorithm>
#include <cstddef>
#include <vector>

// The smallest of the times that so many percent of them are not above. There is at least one.
inline double Percentile(std::vector<double> times, std::size_t percent) {
  std::sort(times.begin(), times.end());
  return times[(times.size() * percent + 99) / 100 - 1];
}

#endif  // TESTS_SUPPORT_PERCENTILE_H
