#include "Federation.h"

#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace {

// The file with these texts replaced, which must be there, and without the lines of TLS. It tries
// again soon: a test waits for it.
std::string shippedLines(const std::string& name,
                         std::vector<std::pair<std::string, std::string>> changes) {
  std::ifstream file(ADC_BROKER_FOLDER + name);
  std::string text((std::istreambuf_iterator<char>(file)), {});
  changes.emplace_back("restart_timeout 1 30\n", "restart_timeout 1 2\n");
  for (const auto& [old, now] : changes) {
    auto at = text.find(old);
    if (at == std::string::npos) throw std::runtime_error(name + " has no '" + old + "'");
    for (; at != std::string::npos; at = text.find(old, at + now.size())) {
      text.replace(at, old.size(), now);
    }
  }
  std::istringstream lines(text);
  std::string rest;
  for (std::string line; std::getline(lines, line);) {
    const bool isOfTls = line.rfind("bridge_cafile", 0) == 0 || line.rfind("bridge_cert", 0) == 0 ||
                         line.rfind("bridge_key", 0) == 0 || line.rfind("bridge_tls", 0) == 0;
    if (!isOfTls) rest += line + "\n";
  }
  return rest;
}

std::string loopback(int port) {
  return "127.0.0.1:" + std::to_string(port) + "\n";
}

}  // namespace

Federation::Federation(Broker& hub, std::vector<Edge> edges)
    : m_hub(hub), m_edges(std::move(edges)) {
  Marks start = Mark();
  std::string down;
  for (const Edge& edge : m_edges) {
    const int port = edge.hubPort != 0 ? edge.hubPort : m_hub.Port();
    edge.broker->Extend(shippedLines(
        "bridge-up.conf", {{"hub.example:8883\n", loopback(port)}, {"edge-1", edge.name}}));
  }
  for (const Edge& edge : m_edges) {
    const int port = edge.edgePort != 0 ? edge.edgePort : edge.broker->Port();
    down += shippedLines("bridge-down.conf",
                         {{"edge-1.example:8883\n", loopback(port)}, {"edge-1", edge.name}});
    // A connection to the hub before it starts again must not pass for one after.
    waitForEdge(edge, start.hub);
  }
  start.hub = m_hub.Log().size();
  m_hub.Extend(down);
  WaitUntilJoined(start);
}

Federation::Marks Federation::Mark() const {
  Marks marks{m_hub.Log().size(), {}};
  for (const Edge& edge : m_edges) marks.edges.push_back(edge.broker->Log().size());
  return marks;
}

void Federation::WaitUntilJoined(const Marks& from) const {
  for (std::size_t i = 0; i < m_edges.size(); ++i) {
    const Edge& edge = m_edges[i];
    waitForEdge(edge, from.hub);
    if (!edge.broker->WaitForLog(" as hub ", from.edges[i])) {
      throw std::runtime_error("the hub does not come to the edge: " + m_hub.Log());
    }
  }
}

void Federation::waitForEdge(const Edge& edge, std::size_t from) const {
  if (m_hub.WaitForLog(" as " + edge.name + " ", from)) return;
  throw std::runtime_error("the edge does not come to the hub: " + edge.broker->Log());
}
