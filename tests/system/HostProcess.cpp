#include "HostProcess.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <sstream>
#include <utility>

HostProcess::HostProcess(std::vector<std::string> command, const Environment& changes)
    : m_program(std::move(command), {m_output.pipe.Writing(), m_errors.pipe.Writing()}, changes) {
  // The host drops a log line that finds no room within 10 ms, and on a busy machine the reader may
  // be slower than that. It stays as it is where the system has no such pipe.
  constexpr int kLogBytes = 1024 * 1024;
  fcntl(m_errors.pipe.Writing(), F_SETPIPE_SZ, kLogBytes);
  for (Stream* stream : {&m_output, &m_errors}) {
    stream->pipe.CloseWriting();
    stream->reader = std::thread([this, stream] { read(*stream); });
  }
}

HostProcess::~HostProcess() {
  End(SIGKILL);
}

std::string HostProcess::Output() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_output.text;
}

std::string HostProcess::Errors() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_errors.text;
}

bool HostProcess::WaitForOutput(const std::string& text, unsigned count) {
  return waitFor(m_output, text, count);
}

bool HostProcess::WaitForError(const std::string& text, unsigned count) {
  return waitFor(m_errors, text, count);
}

void HostProcess::ReadErrors(bool on) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_errors.unread = !on;
  m_changed.notify_all();
}

int HostProcess::Wait() {
  if (m_output.reader.joinable()) {
    ReadErrors(true);
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      const auto ended = [this] { return m_output.ended && m_errors.ended; };
      if (!m_changed.wait_for(lock, kPatience, ended)) m_program.Signal(SIGKILL);
    }
    m_program.Wait();
    for (Stream* stream : {&m_output, &m_errors}) stream->reader.join();
  }
  return m_program.Wait();
}

void HostProcess::read(Stream& stream) {
  std::array<char, 4096> buffer{};
  while (true) {
    const ssize_t count = ::read(stream.pipe.Reading(), buffer.data(), buffer.size());
    if (count == -1 && errno == EINTR) continue;
    std::unique_lock<std::mutex> lock(m_mutex);
    if (count > 0) stream.text.append(buffer.data(), static_cast<std::size_t>(count));
    stream.ended = count <= 0;
    m_changed.notify_all();
    if (stream.ended) return;
    m_changed.wait(lock, [&stream] { return !stream.unread; });
  }
}

bool HostProcess::waitFor(const Stream& stream, const std::string& text, unsigned count) {
  std::unique_lock<std::mutex> lock(m_mutex);
  const auto found = [&] { return CountOf(text, stream.text) >= count; };
  m_changed.wait_for(lock, kPatience,
                     [&] { return found() || (m_output.ended && m_errors.ended); });
  return found();
}

unsigned CountOf(const std::string& part, const std::string& text) {
  unsigned count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

unsigned CountUnsent(const std::string& log) {
  unsigned count = 0;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    const bool isOfAnEvent = line.find("SendSetRequest") != std::string::npos;
    if (isOfAnEvent && line.find("not initialized") != std::string::npos) ++count;
  }
  return count;
}

CommandResult RunCommand(const std::vector<std::string>& command,
                         const HostProcess::Environment& changes) {
  HostProcess process(command, changes);
  const int status = process.Wait();
  return {status, process.Output(), process.Errors()};
}
