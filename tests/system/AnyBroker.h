#ifndef TESTS_SYSTEM_ANYBROKER_H
#define TESTS_SYSTEM_ANYBROKER_H

#include <string>

#include "Broker.h"

// A broker of any make at a port of the loopback interface that stays the same. It runs from its
// construction on. Failures are thrown as std::runtime_error.
class AnyBroker {
 public:
  AnyBroker() = default;
  virtual ~AnyBroker() = default;
  AnyBroker(const AnyBroker&) = delete;
  AnyBroker& operator=(const AnyBroker&) = delete;

  virtual int Port() const = 0;
  // What its clients have to identify themselves with; nothing when the user is empty.
  virtual std::string User() const { return {}; }
  virtual std::string Password() const { return {}; }
  // A clean shutdown: it has its sessions and retained messages when it is started again.
  virtual void Stop() = 0;
  // Ends it as a crash would, and what it remembers is gone.
  virtual void KillAndForget() = 0;
  virtual void Start() = 0;
  // Between these it neither reads nor writes.
  virtual void Freeze() {}
  virtual void Thaw() {}
};

// The broker of the other tests.
class MosquittoBroker final : public AnyBroker {
 public:
  int Port() const override { return m_broker.Port(); }
  void Stop() override { m_broker.Stop(); }
  void KillAndForget() override {
    m_broker.Kill();
    m_broker.Forget();
  }
  void Start() override { m_broker.Start(); }
  void Freeze() override { m_broker.Freeze(); }
  void Thaw() override { m_broker.Thaw(); }

 private:
  Broker m_broker;
};

#endif  // TESTS_SYSTEM_ANYBROKER_H
