#ifndef TESTS_SYSTEM_STEADYAPP_H
#define TESTS_SYSTEM_STEADYAPP_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <string>

#include "BusClient.h"

// An application that does what applications should: it registers when it comes to the bus and each
// time that the channel says that it is up, takes its events, and sends numbered data. It waits for
// nothing: everything happens in Step, which is to be called again and again. One thread uses it.
class SteadyApp {
 public:
  using OnEvent = std::function<void(const std::string& data)>;

  // It is not on the bus yet.
  SteadyApp(std::string name, OnEvent onEvent);
  ~SteadyApp();
  SteadyApp(const SteadyApp&) = delete;
  SteadyApp& operator=(const SteadyApp&) = delete;

  // The bus must be running and answer.
  void Join(const std::string& address);
  // The bus has ended: takes what it had delivered before.
  void Leave();

  void Step();

  // How many data were sent with success, and the last of them.
  std::size_t Sent() const { return m_sent; }
  const std::string& LastSent() const { return m_lastSent; }

 private:
  enum class State { Absent, Unregistering, Registering, Registered, Sending, Failed };

  void absorb();
  void begin(State state);
  void takeReply(const Reply& reply);

  const std::string m_name;
  const OnEvent m_onEvent;
  std::unique_ptr<BusClient> m_client;  // null while it is not on the bus
  State m_state = State::Absent;
  bool m_mustRegister = false;  // again, once what is under way has ended
  std::future<Reply> m_reply;   // valid while a call is under way
  std::chrono::steady_clock::time_point m_next;
  std::string m_data;  // that was sent last, with or without success
  std::size_t m_number = 0;
  std::size_t m_sent = 0;
  std::string m_lastSent;
};

#endif  // TESTS_SYSTEM_STEADYAPP_H
