#include "Listeners.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <new>
#include <stdexcept>

#include "BusClient.h"
#include "WaitUntil.h"

struct Listeners::Shared {
  std::atomic<bool> ready{false};
  std::atomic<std::uint64_t> events{0};
};

Listeners::Listeners(std::size_t count, const std::string& busAddress,
                     const std::vector<std::string>& rules) {
  void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, /*fd=*/-1, /*offset=*/0);
  if (memory == MAP_FAILED) throw std::runtime_error("no memory for the listeners");
  m_shared = new (memory) Shared;
  if (count == 0) return;
  m_process = fork();
  if (m_process == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
      std::deque<BusClient> connections;
      for (std::size_t i = 0; i < count; ++i) {
        connections.emplace_back(busAddress, [this](GDBusMessage& signal) {
          if (g_strcmp0(g_dbus_message_get_member(&signal), "send_event") != 0) return;
          const char* data = nullptr;
          g_variant_get(g_dbus_message_get_body(&signal), "(&s&s)", nullptr, &data);
          ++m_shared->events;
        });
        for (const std::string& rule : rules) connections.back().Match(rule);
      }
      m_shared->ready = true;
      while (true) pause();
    } catch (const std::exception& error) {
      std::fprintf(stderr, "channel-latency: a listener: %s\n", error.what());
    }
    std::_Exit(EXIT_FAILURE);  // all else here is the other process's
  }
  if (m_process < 0 || !WaitUntil([this] { return m_shared->ready.load(); })) {
    throw std::runtime_error("there are no listeners");
  }
}

Listeners::~Listeners() {
  if (m_process > 0) {
    kill(m_process, SIGKILL);
    waitpid(m_process, nullptr, 0);
  }
  munmap(m_shared, sizeof(Shared));
}

bool Listeners::HaveRead(std::uint64_t events) const {
  return WaitUntil([&] { return m_shared->events >= events; }) && m_shared->events == events;
}
