#ifndef TESTS_SUPPORT_CONTRACT_H
#define TESTS_SUPPORT_CONTRACT_H

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// What contract/asyncapi.yaml says of one message at a time: of its topic, payload, QoS, retain
// flag and MQTT properties. It never changes once it is made, so that any thread may use it.
class Contract {
 public:
  // The MQTT properties of a PUBLISH.
  struct Properties {
    std::optional<std::string> responseTopic{};
    std::optional<std::string> correlationData{};
    std::optional<std::string> contentType{};
    std::optional<int> payloadFormatIndicator{};
    std::vector<std::pair<std::string, std::string>> userProperties{};
    std::vector<std::string> others{};  // names of further ones

    // Its first value; null when there is none.
    const std::string* UserProperty(std::string_view name) const;
  };
  struct Message {
    std::string_view topic;
    std::string_view payload;
    int qos;
    bool retain;
    Properties properties{};
  };

  // What it takes a message for, by the names in the contract.
  struct Verdict {
    std::string channel;  // empty: there is none with this topic
    std::string message;  // empty: the channel has none with this payload
    // What is wrong with it, in a few words each. A request that is wrong is no fault of the thing,
    // so it only has no name.
    std::vector<std::string> faults;
    bool isRequest;
  };

  // The one of the project.
  static const Contract& OfProject();

  // `json`: the document as JSON. Throws std::runtime_error when it cannot be used.
  explicit Contract(std::string_view json);
  ~Contract();
  Contract(const Contract&) = delete;
  Contract& operator=(const Contract&) = delete;

  // By the message's topic. There is nothing but the name of the channel in the verdict of a topic
  // that is none.
  Verdict Judge(const Message& message) const;
  // As an answer, whose topic its request has chosen.
  Verdict JudgeAnswer(const Message& message) const;
  // The same for a payload of another service, which is not held against a schema: `channel` and
  // `name` say what the message is.
  std::vector<std::string> FaultsBesidesPayload(const std::string& channel, const std::string& name,
                                                const Message& message) const;
  // Whether the payload of an error says that its request does not fit its schema.
  bool BlamesPayload(std::string_view error) const;

  // The names of all messages.
  std::vector<std::string> Messages() const;
  // Whether each example is one of its message: what is wrong, a line each.
  std::vector<std::string> FaultsOfExamples() const;

 private:
  struct Document;
  struct Channel;

  const Channel& channelNamed(const std::string& name) const;
  static Verdict judge(const Channel& channel, const Message& message);

  std::unique_ptr<Document> m_document;
};

#endif  // TESTS_SUPPORT_CONTRACT_H
