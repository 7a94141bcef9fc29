#include "LineStream.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstddef>

void LineStream::Send(std::string_view line) {
  m_out.append(line);
  m_out.push_back('\n');
  Flush();
}

void LineStream::Flush() {
  while (!m_out.empty()) {
    const ssize_t count =
        send(m_descriptor, m_out.data(), m_out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno != EAGAIN) m_out.clear();  // the other side has ended
    if (count <= 0) return;
    m_out.erase(0, static_cast<std::size_t>(count));
  }
}

std::vector<std::string> LineStream::Receive(bool& ended) {
  std::array<char, 65536> buffer{};
  while (true) {
    const ssize_t count = recv(m_descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count < 0 && errno == EINTR) continue;
    if (count == 0 || (count < 0 && errno != EAGAIN)) ended = true;
    if (count <= 0) break;
    m_in.append(buffer.data(), static_cast<std::size_t>(count));
  }
  std::vector<std::string> lines;
  std::size_t begin = 0;
  for (auto end = m_in.find('\n'); end != std::string::npos; end = m_in.find('\n', begin)) {
    lines.push_back(m_in.substr(begin, end - begin));
    begin = end + 1;
  }
  m_in.erase(0, begin);
  return lines;
}

std::vector<std::string> Split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  while (true) {
    const auto end = text.find(separator);
    parts.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos) return parts;
    text.remove_prefix(end + 1);
  }
}
