#ifndef TESTS_FLEET_LINESTREAM_H
#define TESTS_FLEET_LINESTREAM_H

#include <string>
#include <string_view>
#include <vector>

// Lines of text to and from another process, through a socket that is not owned. Nothing blocks:
// what the other side does not take yet waits in memory. One thread uses it.
class LineStream {
 public:
  explicit LineStream(int descriptor) : m_descriptor(descriptor) {}

  // The line has no line feed.
  void Send(std::string_view line);
  // Writes what waits, as far as the other side takes it.
  void Flush();
  bool HasWaiting() const { return !m_out.empty(); }
  // The whole lines that have come. Sets `ended` when no more can come.
  std::vector<std::string> Receive(bool& ended);

 private:
  const int m_descriptor;
  std::string m_in;
  std::string m_out;
};

// The parts between the separators; always one more than there are separators.
std::vector<std::string> Split(std::string_view text, char separator);

#endif  // TESTS_FLEET_LINESTREAM_H
