#ifndef TESTS_SUPPORT_PIPE_H
#define TESTS_SUPPORT_PIPE_H

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

// The two ends of a pipe, closed with the object; none is inherited by another program.
class Pipe {
 public:
  // Throws std::runtime_error.
  Pipe() {
    if (pipe2(m_ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  }
  ~Pipe() {
    close(m_ends[0]);
    CloseWriting();
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int Reading() const { return m_ends[0]; }
  int Writing() const { return m_ends[1]; }
  void CloseWriting() {
    if (m_ends[1] >= 0) close(m_ends[1]);
    m_ends[1] = -1;
  }

 private:
  std::array<int, 2> m_ends{-1, -1};
};

#endif  // TESTS_SUPPORT_PIPE_H
