#ifndef TESTS_SUPPORT_GATE_H
#define TESTS_SUPPORT_GATE_H

#include <stdexcept>

#include "Watched.h"

// Closed until it is opened; those who wait for it go on then. Any thread.
class Gate {
 public:
  // Throws std::logic_error when it is open already: what opens it was to happen once.
  void Open() {
    m_open.Change([](bool& open) {
      if (open) throw std::logic_error("opened twice");
      open = true;
    });
  }
  // False when it has not been opened within a time that is far more than enough.
  bool Wait() const {
    return m_open.WaitFor([](bool open) { return open; });
  }

 private:
  Watched<bool> m_open;
};

#endif  // TESTS_SUPPORT_GATE_H
