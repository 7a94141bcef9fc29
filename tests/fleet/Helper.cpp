#include "Helper.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

Helper::Helper(std::vector<std::string> command, int errors)
    : m_ends(connect()),
      m_program(std::move(command), Program::Streams{m_ends.theirs, errors}),
      m_stream(m_ends.ours) {
  close(m_ends.theirs);
}

Helper::~Helper() {
  close(m_ends.ours);
}

Helper::Ends Helper::connect() {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  return {ends[0], ends[1]};
}
