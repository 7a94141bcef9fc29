#ifndef TESTS_PLATFORM_LUMO_PLUGIN_H
#define TESTS_PLATFORM_LUMO_PLUGIN_H

#include <stdlib.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Watched.h"
#include "lumo.h"

// A variable of the environment, as long as the object lives.
class Variable {
 public:
  Variable(const char* name, const std::string& value) : m_name(name) {
    setenv(name, value.c_str(), 1);
  }
  ~Variable() { unsetenv(m_name); }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  const char* const m_name;
};

// The user of a service, through the C interface. It notes its callbacks and, unless told
// otherwise, answers every request with success and the properties that came with it.
class PlugIn {
 public:
  struct Call {
    std::string what;  // "get", "set", "cancel" or "status"
    void* service;
    void* request;
    std::vector<std::string> properties;  // "name=value:type", or "protocol=status"
    std::thread::id thread;
  };

  // Nothing is created when the environment is wrong: Service() is null.
  explicit PlugIn(const std::string& name = "service");
  // Destroys this service and all others: only so can the callbacks be waited for.
  ~PlugIn();
  PlugIn(const PlugIn&) = delete;
  PlugIn& operator=(const PlugIn&) = delete;

  void* Service() const { return m_service; }
  void Destroy();

  void AnswerNothing() { m_answering = false; }
  // Runs in the get and set callbacks, before the answer.
  void OnRequest(std::function<void(const Call&)> function) {
    m_onRequest.Change([&](auto& current) { current = std::move(function); });
  }
  static lumo_error Answer(const Call& call, lumo_error code);

  lumo_error Register(const std::string& name, lumo_property_type type = LUMO_PROPERTY_TYPE_STRING);
  lumo_error Unregister(const std::string& name);
  lumo_error Notify(const std::string& name, const std::string& text);
  lumo_error NotifyProperty(void* property);

  // Those of one kind.
  std::vector<Call> Calls(const std::string& what) const;
  bool WaitForCalls(const std::string& what, std::size_t count);
  // Waits until the last status is this one.
  bool WaitForStatus(const std::string& status);
  std::vector<std::string> Statuses() const;

 private:
  void note(Call call);
  void onRequest(const char* what, void* service, void* request, void* list);

  std::atomic<bool> m_answering{true};
  Watched<std::function<void(const Call&)>> m_onRequest;
  Watched<std::vector<Call>> m_calls;
  void* m_service = nullptr;
};

#endif  // TESTS_PLATFORM_LUMO_PLUGIN_H
