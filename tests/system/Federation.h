#ifndef TESTS_SYSTEM_FEDERATION_H
#define TESTS_SYSTEM_FEDERATION_H

#include <cstddef>
#include <string>
#include <vector>

#include "Broker.h"

// A hub and edges that are joined by the shipped files of packaging/broker: what televisions
// publish at an edge goes up to the hub, requests go down. Without TLS, so that the names are not
// those of certificates. All brokers live longer. Failures are thrown as std::runtime_error.
class Federation {
 public:
  struct Edge {
    Broker* broker;
    std::string name;
    // Where the two find each other; 0: at the brokers' own ports.
    int hubPort = 0;
    int edgePort = 0;
  };

  // Starts all brokers again, joined.
  Federation(Broker& hub, std::vector<Edge> edges);

  // Returns once all are joined, again when they were before: `from` is Mark() of before.
  struct Marks {
    std::size_t hub = 0;
    std::vector<std::size_t> edges;
  };
  Marks Mark() const;
  void WaitUntilJoined(const Marks& from) const;

 private:
  void waitForEdge(const Edge& edge, std::size_t from) const;

  Broker& m_hub;
  const std::vector<Edge> m_edges;
};

#endif  // TESTS_SYSTEM_FEDERATION_H
