// fleet-worker PORT ID FILTER...
//
// A part of a cloud: it subscribes to the filters and says what comes, and sends sets at QoS 2 with
// a Response Topic of its own. Its session lasts when it has an id; filters that begin with $share
// have a connection without a session, as docs/cloud.md says. Protocol.h has the lines. It ends
// when its standard output, a socket, does.
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "LineStream.h"
#include "MqttPeer.h"
#include "Protocol.h"

namespace {

// Blocking, for several threads.
void say(const std::string& line) {
  static std::mutex mutex;
  const std::lock_guard<std::mutex> lock(mutex);
  const std::string text = line + "\n";
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t count = send(STDOUT_FILENO, text.data() + done, text.size() - done, MSG_NOSIGNAL);
    if (count <= 0) std::_Exit(EXIT_FAILURE);  // the runner has ended
    done += static_cast<std::size_t>(count);
  }
}

std::map<std::string, std::string> userPropertiesOf(const mosquitto_property* properties) {
  std::map<std::string, std::string> found;
  bool skipsFirst = false;
  while (properties != nullptr) {
    char* name = nullptr;
    char* value = nullptr;
    properties = mosquitto_property_read_string_pair(properties, MQTT_PROP_USER_PROPERTY, &name,
                                                     &value, skipsFirst);
    const std::unique_ptr<char, void (*)(void*)> ownName(name, std::free);
    const std::unique_ptr<char, void (*)(void*)> ownValue(value, std::free);
    if (name != nullptr && value != nullptr) found[name] = value;
    skipsFirst = true;
  }
  return found;
}

void report(const MqttPeer::Message& message, bool isShared, const std::string& markTopic) {
  if (message.topic == markTopic) return say("marked");
  auto user = userPropertiesOf(message.properties);
  std::string line = "message\t" + std::to_string(Fleet::Now()) + "\t-";
  if (isShared) line += 's';
  if (message.retained) line += 'r';
  for (const std::string& word : {std::string(message.topic), message.correlation, user["run"],
                                  user["sequence"], user["time"], std::string(message.payload)}) {
    line += '\t' + word;
  }
  say(line);
}

class Worker {
 public:
  Worker(int port, const std::string& id, const std::vector<std::string>& filters)
      : m_answers("answers/" + (id.empty() ? "of-nobody-" + std::to_string(getpid()) : id)),
        m_marks(m_answers + "/mark") {
    MqttPeer::Options own;
    MqttPeer::Options shared;
    own.id = id;
    own.filters = {m_answers, m_marks};
    own.onConnected = [](bool present) { say(std::string("connected\t") + (present ? "1" : "0")); };
    for (const std::string& filter : filters) {
      (filter.rfind("$share/", 0) == 0 ? shared : own).filters.push_back(filter);
    }
    const bool hasShared = !shared.filters.empty();
    m_peer = std::make_unique<MqttPeer>(
        port, std::move(own),
        [this](const MqttPeer::Message& message) { report(message, false, m_marks); });
    if (!hasShared) return;
    m_sharing = std::make_unique<MqttPeer>(
        port, std::move(shared),
        [this](const MqttPeer::Message& message) { report(message, true, m_marks); });
  }

  void Do(const std::vector<std::string>& words) {
    const std::string& command = words.at(0);
    if (command == "set") {
      const std::string& number = words.at(1);
      say("published\t" + std::to_string(Fleet::Now()) + "\t" + number);
      MqttPeer::Publication set;
      set.topic = "things/" + words.at(2) + "/appdatachannel/set";
      set.payload = std::string("{\"") + Fleet::kApp + "\":\"s" + number + "\"}";
      set.responseTopic = m_answers;
      set.correlation = number;
      m_peer->Publish(std::move(set));
    } else if (command == "settle") {
      say((m_peer->WaitUntilPublished() ? "settled\t" : "unsettled\t") + words.at(1));
    } else if (command == "mark") {
      MqttPeer::Publication mark;
      mark.topic = m_marks;
      mark.qos = 1;  // in the order of what is retained
      m_peer->Publish(std::move(mark));
    }
  }

 private:
  const std::string m_answers;
  const std::string m_marks;
  std::unique_ptr<MqttPeer> m_peer;
  std::unique_ptr<MqttPeer> m_sharing;  // null without a shared subscription
};

void run(Worker& worker) {
  std::string in;
  std::array<char, 4096> buffer{};
  while (true) {
    const ssize_t count = recv(STDOUT_FILENO, buffer.data(), buffer.size(), 0);
    if (count <= 0) return;
    in.append(buffer.data(), static_cast<std::size_t>(count));
    for (auto end = in.find('\n'); end != std::string::npos; end = in.find('\n')) {
      worker.Do(Split(in.substr(0, end), '\t'));
      in.erase(0, end + 1);
    }
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 3) return EXIT_FAILURE;
  try {
    Worker worker(std::stoi(arguments[1]), arguments[2], {arguments + 3, arguments + count});
    say("up");
    run(worker);
    std::_Exit(EXIT_SUCCESS);  // the runner has ended: nobody wants what is left
  } catch (const std::exception& error) {
    std::fprintf(stderr, "fleet-worker: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
