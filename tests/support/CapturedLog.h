#ifndef TESTS_SUPPORT_CAPTUREDLOG_H
#define TESTS_SUPPORT_CAPTUREDLOG_H

#include <mutex>
#include <string>
#include <vector>

// Takes the place of the platform log in an executable that it is linked into, and keeps the lines.
// Any thread.
class CapturedLog {
 public:
  struct Line {
    int priority;
    std::string tag;
    std::string message;
  };

  static CapturedLog& Get();

  void Add(Line line);
  // Returns the lines and forgets them.
  std::vector<Line> Take();

 private:
  std::mutex m_mutex;
  std::vector<Line> m_lines;  // guarded by m_mutex
};

#endif  // TESTS_SUPPORT_CAPTUREDLOG_H
