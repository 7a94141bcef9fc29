#ifndef TESTS_SYSTEM_EJABBERDBROKER_H
#define TESTS_SYSTEM_EJABBERDBROKER_H

#include <filesystem>
#include <memory>
#include <string>

#include "AnyBroker.h"
#include "HostProcess.h"

// The names of Erlang's nodes for one cluster: an epmd of its own at a port of the loopback
// interface, and the cookie by which the nodes know each other. It lives longer than the nodes.
// Failures are thrown as std::runtime_error.
class ErlangNames {
 public:
  ErlangNames();
  ErlangNames(const ErlangNames&) = delete;
  ErlangNames& operator=(const ErlangNames&) = delete;

  int Port() const { return m_port; }
  const std::string& Cookie() const { return m_cookie; }

 private:
  int m_port = 0;
  std::string m_cookie;
  std::unique_ptr<HostProcess> m_program;
};

// A broker of another make: Debian's package ejabberd, with everything that it writes in a folder.
// It keeps sessions in memory, so that it never remembers one when it is started again.
class EjabberdBroker final : public AnyBroker {
 public:
  static bool IsInstalled() { return !std::string(ADC_EJABBERD_CODE).empty(); }

  // One node, alone. The folder must live longer.
  explicit EjabberdBroker(const std::filesystem::path& folder) : EjabberdBroker(folder, {}) {}
  // One node of a cluster. It joins the cluster of the other node when there is one.
  struct Node {
    const ErlangNames* names = nullptr;  // null: alone
    std::string name;
    const EjabberdBroker* joins = nullptr;
  };
  EjabberdBroker(const std::filesystem::path& folder, Node node);

  int Port() const override { return m_port; }
  std::string User() const override { return "somebody@localhost"; }
  std::string Password() const override { return "whatever"; }
  void Stop() override;
  void KillAndForget() override;
  void Start() override;

 private:
  void configure() const;
  bool tryToStart();
  std::string nodeName() const { return m_node.name + "@127.0.0.1"; }

  const Node m_node;
  const std::filesystem::path m_folder;
  int m_port = 0;
  std::unique_ptr<HostProcess> m_program;  // null while it is not running
};

#endif  // TESTS_SYSTEM_EJABBERDBROKER_H
