#ifndef TESTS_SYSTEM_STEADYAPP_H
#define TESTS_SYSTEM_STEADYAPP_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include "BusClient.h"

// An application that does what applications should: it registers when it comes to the bus and each
// time that the channel says that it is up, takes its events, and sends numbered data. It waits for
// nothing: everything happens in Step, which is to be called again and again. One thread uses it.
class SteadyApp {
 public:
  using OnEvent = std::function<void(const std::string& data)>;

  // It is not on the bus yet.
  SteadyApp(std::string name, OnEvent onEvent)
      : m_name(std::move(name)), m_onEvent(std::move(onEvent)) {}
  ~SteadyApp() { Leave(); }
  SteadyApp(const SteadyApp&) = delete;
  SteadyApp& operator=(const SteadyApp&) = delete;

  // The bus must be running and answer.
  void Join(const std::string& address) {
    m_client = std::make_unique<BusClient>(address);
    m_mustRegister = true;
  }
  // The bus has ended: takes what it had delivered before.
  void Leave() {
    if (!m_client) return;
    // It fails once everything that came before is here.
    m_client->OwnerOf(kBusName);
    absorb();
    m_client->Close();
    if (m_reply.valid()) m_reply.get();
    m_client.reset();
  }

  void Step() {
    if (!m_client) return;
    absorb();
    if (m_reply.valid()) {
      if (m_reply.wait_for(std::chrono::seconds(0)) != std::future_status::ready) return;
      takeReply(m_reply.get().value);
    }
    if (std::exchange(m_mustRegister, false)) {
      call("unregister_app");  // what an earlier life of it has left
    } else if (std::chrono::steady_clock::now() >= m_next) {
      call(m_nextMethod);
    }
  }

  // How many data were sent with success, and the last of them.
  std::size_t Sent() const { return m_sent; }
  const std::string& LastSent() const { return m_lastSent; }

 private:
  void absorb() {
    const std::string before = "('" + m_name + "', '";
    for (const Signal& signal : m_client->TakeSignals()) {
      if (signal.member == "dbus_server_ready") m_mustRegister = true;
      if (signal.member != "send_event" || signal.parameters.rfind(before, 0) != 0) continue;
      const std::size_t end = signal.parameters.size() - 2;
      m_onEvent(signal.parameters.substr(before.size(), end - before.size()));
    }
  }

  void call(const std::string& method) {
    m_method = method;
    if (method == "send_data") m_data = std::to_string(++m_number);
    m_reply = m_client->Call(method, method == "send_data"
                                         ? g_variant_new("(ss)", m_name.c_str(), m_data.c_str())
                                         : g_variant_new("(s)", m_name.c_str()));
  }

  void takeReply(const std::string& reply) {
    const bool done = reply == "(0,)";
    const bool isUnregistered = m_method == "unregister_app" && reply == "(-20,)";
    const bool mayBeRegistered = m_method == "unregister_app" && done;
    if (m_method == "send_data" && done) {
      m_lastSent = m_data;
      ++m_sent;
    }
    m_nextMethod = isUnregistered ? "register_app" : "unregister_app";
    if (done && !mayBeRegistered) m_nextMethod = "send_data";
    const bool isAtOnce = isUnregistered || mayBeRegistered;
    m_next = std::chrono::steady_clock::now() + std::chrono::milliseconds(isAtOnce ? 0 : 50);
  }

  const std::string m_name;
  const OnEvent m_onEvent;
  std::unique_ptr<BusClient> m_client;  // null while it is not on the bus
  bool m_mustRegister = false;          // again, once what is under way has ended
  std::string m_method;                 // that was called last
  std::future<Reply> m_reply;           // valid while the call is under way
  std::string m_nextMethod;
  std::chrono::steady_clock::time_point m_next;
  std::string m_data;  // that was sent last, with or without success
  std::size_t m_number = 0;
  std::size_t m_sent = 0;
  std::string m_lastSent;
};

#endif  // TESTS_SYSTEM_STEADYAPP_H
