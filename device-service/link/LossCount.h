#ifndef DEVICE_SERVICE_LINK_LOSSCOUNT_H
#define DEVICE_SERVICE_LINK_LOSSCOUNT_H

#include <atomic>

#include "dlog.h"

namespace Lumo {

// Counts silent losses. Logs the first, the second, the fourth and so on, so that many losses do
// not flood the log. Any thread.
class LossCount {
 public:
  // `what` is a literal: what is lost, in the plural.
  explicit LossCount(const char* what) : m_what(what) {}

  void Note() {
    const unsigned count = ++m_count;
    if ((count & (count - 1)) == 0) dlog_print(6, "LUMO", "%s: %u so far\n", m_what, count);
  }

 private:
  const char* const m_what;
  std::atomic<unsigned> m_count{0};
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_LINK_LOSSCOUNT_H
