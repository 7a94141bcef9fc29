#include "Contract.h"

#include "JsonText.h"  // before RapidJSON's own

#include <rapidjson/pointer.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>

#include "JsonSchema.h"

namespace {

using Value = rapidjson::Value;

constexpr const char* kAnswer = "answer";
constexpr const char* kJson = "application/json";

std::string textOf(const Value& value) {
  return {value.GetString(), value.GetStringLength()};
}

// The value that "$ref" names, if that is what this is.
const Value& resolve(const Value& root, const Value& value) {
  const Value* found = &value;
  while (found->IsObject() && found->HasMember("$ref")) {
    found = rapidjson::Pointer(textOf((*found)["$ref"]).c_str()).Get(root);
    if (found == nullptr) throw std::runtime_error("the contract names what it does not have");
  }
  return *found;
}

std::vector<std::string> levelsOf(std::string_view topic) {
  std::vector<std::string> levels(1);
  for (const char letter : topic) {
    if (letter == '/') {
      levels.emplace_back();
    } else {
      levels.back() += letter;
    }
  }
  return levels;
}

void add(rapidjson::Document& document, Value& object, const std::string& name, Value value) {
  Value key(name.data(), static_cast<rapidjson::SizeType>(name.size()), document.GetAllocator());
  object.AddMember(key, value, document.GetAllocator());
}

Value stringOf(rapidjson::Document& document, std::string_view text) {
  return {text.empty() ? "" : text.data(), static_cast<rapidjson::SizeType>(text.size()),
          document.GetAllocator()};
}

// As the contract has them in the headers of its messages.
rapidjson::Document headersOf(const Contract::Properties& properties) {
  rapidjson::Document headers(rapidjson::kObjectType);
  const auto addText = [&headers](const char* name, const std::optional<std::string>& text) {
    if (text) add(headers, headers, name, stringOf(headers, *text));
  };
  addText("responseTopic", properties.responseTopic);
  addText("correlationData", properties.correlationData);
  addText("contentType", properties.contentType);
  if (properties.payloadFormatIndicator) {
    add(headers, headers, "payloadFormatIndicator", Value(*properties.payloadFormatIndicator));
  }
  if (!properties.userProperties.empty()) {
    Value user(rapidjson::kObjectType);
    for (const auto& [name, value] : properties.userProperties) {
      add(headers, user, name, stringOf(headers, value));
    }
    add(headers, headers, "userProperties", std::move(user));
  }
  for (const std::string& name : properties.others) add(headers, headers, name, Value(true));
  return headers;
}

}  // namespace

struct Contract::Channel {
  struct Kind {
    std::string name;
    bool isJson;
    JsonSchema payload;
    std::optional<JsonSchema> headers;
  };

  // Null when there is none with this name.
  const Kind* Named(const std::string& wanted) const {
    const auto kind = std::find_if(kinds.begin(), kinds.end(),
                                   [&wanted](const Kind& one) { return one.name == wanted; });
    return kind == kinds.end() ? nullptr : &*kind;
  }

  bool HasTopic(std::string_view topic) const {
    const std::vector<std::string> parts = levelsOf(topic);
    return !address.empty() &&
           std::equal(address.begin(), address.end(), parts.begin(), parts.end(),
                      [](const std::string& level, const std::string& part) {
                        return level.front() == '{' ? !part.empty() : level == part;
                      });
  }

  // Null when there is none; then `fault` says why.
  const Kind* KindOf(std::string_view payload, std::string& fault) const {
    if (payload.size() < kLong) return findKind(payload, fault);
    const std::lock_guard<std::mutex> lock(last->mutex);
    if (last->payload != payload) {
      last->payload = payload;
      last->fault.clear();
      last->kind = findKind(payload, last->fault);
    }
    fault = last->fault;
    return last->kind;
  }

  // Of all but topic and payload.
  void AddFaults(const Message& message, const Kind* kind, std::vector<std::string>& faults) const {
    if (message.qos != qos) faults.push_back("QoS " + std::to_string(message.qos));
    if (message.retain != retain) {
      faults.push_back(std::string("retain is ") + (message.retain ? "set" : "not set"));
    }
    std::set<std::string> names;
    Properties once = message.properties;
    once.userProperties.clear();
    for (const auto& property : message.properties.userProperties) {
      if (names.insert(property.first).second) {
        once.userProperties.push_back(property);
      } else {
        faults.push_back("the User Property " + property.first + " comes twice");
      }
    }
    if (kind == nullptr || !kind->headers) return;
    const std::string fault = kind->headers->FaultOf(headersOf(once));
    if (!fault.empty()) faults.push_back("MQTT properties: " + fault);
  }

  const Kind* findKind(std::string_view payload, std::string& fault) const {
    const JsonText json(payload);
    // An empty one may have no place in memory.
    const Value text(payload.empty() ? "" : payload.data(),
                     static_cast<rapidjson::SizeType>(payload.size()));
    if (!json.IsJson()) fault = "no JSON";
    for (const Kind& kind : kinds) {
      if (kind.isJson && !json.IsJson()) continue;
      const Value& value = kind.isJson ? json.Get() : text;
      if (kind.payload.Fits(value)) return &kind;
      if (kind.isJson) fault = kind.payload.FaultOf(value);
    }
    return nullptr;
  }

  // Loads send the same long payload again and again.
  static constexpr std::size_t kLong = 1024;
  struct Last {
    std::mutex mutex;
    std::string payload;         // guarded by the mutex, like the others
    const Kind* kind = nullptr;  // what findKind says of it
    std::string fault = "no JSON";
  };

  std::string name;
  std::vector<std::string> address;  // its levels; empty when requests choose it
  std::vector<Kind> kinds;
  bool isRequest = false;
  int qos = 0;
  bool retain = false;
  std::unique_ptr<Last> last = std::make_unique<Last>();
};

struct Contract::Document {
  explicit Document(std::string_view json) : text(json) {
    if (!text.IsJson()) throw std::runtime_error("the contract is no JSON");
  }

  const Value& Root() const { return text.Get(); }

  const JsonText text;
  std::map<std::string, Channel> channels;  // by name
  std::vector<JsonSchema> faultsOfPayload;  // texts of errors
};

const std::string* Contract::Properties::UserProperty(std::string_view name) const {
  for (const auto& [key, value] : userProperties) {
    if (key == name) return &value;
  }
  return nullptr;
}

const Contract& Contract::OfProject() {
  static const Contract contract([] {
    std::ifstream file(ADC_CONTRACT_FILE, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), {});
  }());
  return contract;
}

Contract::Contract(std::string_view json) : m_document(std::make_unique<Document>(json)) {
  const Value& root = m_document->Root();
  for (const auto& [key, channel] : root["channels"].GetObject()) {
    Channel& made = m_document->channels[textOf(key)];
    made.name = textOf(key);
    if (channel["address"].IsString()) made.address = levelsOf(textOf(channel["address"]));
    for (const auto& [name, reference] : channel["messages"].GetObject()) {
      const Value& message = resolve(root, reference);
      const Value& type =
          message.HasMember("contentType") ? message["contentType"] : root["defaultContentType"];
      std::optional<JsonSchema> headers;
      if (message.HasMember("headers")) headers.emplace(root, message["headers"]);
      made.kinds.push_back(
          {textOf(name), type == kJson, JsonSchema(root, message["payload"]), std::move(headers)});
    }
  }
  for (const auto& [key, operation] : root["operations"].GetObject()) {
    const std::string reference = textOf(operation["channel"]["$ref"]);
    Channel& channel = m_document->channels.at(reference.substr(reference.rfind('/') + 1));
    const Value& binding = operation["bindings"]["mqtt"];
    channel.isRequest = operation["action"] == "receive";
    channel.qos = binding["qos"].GetInt();
    channel.retain = binding["retain"].GetBool();
  }
  const Value& reasons = root["components"]["schemas"]["error"]["properties"]["error"]["anyOf"];
  for (const Value& reason : reasons.GetArray()) {
    if (reason.HasMember("x-shown-by-schema")) {
      m_document->faultsOfPayload.emplace_back(root, reason);
    }
  }
  channelNamed(kAnswer);
}

Contract::~Contract() = default;

Contract::Verdict Contract::Judge(const Message& message) const {
  for (const auto& [name, channel] : m_document->channels) {
    if (channel.HasTopic(message.topic)) return judge(channel, message);
  }
  return {};
}

Contract::Verdict Contract::JudgeAnswer(const Message& message) const {
  return judge(channelNamed(kAnswer), message);
}

std::vector<std::string> Contract::FaultsBesidesPayload(const std::string& channel,
                                                        const std::string& name,
                                                        const Message& message) const {
  const Channel& found = channelNamed(channel);
  const Channel::Kind* const kind = found.Named(name);
  if (kind == nullptr) throw std::runtime_error("the contract has no message " + name);
  std::vector<std::string> faults;
  found.AddFaults(message, kind, faults);
  return faults;
}

bool Contract::BlamesPayload(std::string_view error) const {
  const JsonText json(error);
  if (!json.IsJson() || !json.Get().IsObject() || !json.Get().HasMember("error")) return false;
  const Value& text = json.Get()["error"];
  const auto& reasons = m_document->faultsOfPayload;
  return std::any_of(reasons.begin(), reasons.end(),
                     [&text](const JsonSchema& reason) { return reason.Fits(text); });
}

std::vector<std::string> Contract::Messages() const {
  std::vector<std::string> names;
  for (const auto& [key, channel] : m_document->channels) {
    for (const Channel::Kind& kind : channel.kinds) names.push_back(kind.name);
  }
  return names;
}

std::vector<std::string> Contract::FaultsOfExamples() const {
  std::vector<std::string> faults;
  const Value& root = m_document->Root();
  for (const auto& [key, channel] : m_document->channels) {
    for (const Channel::Kind& kind : channel.kinds) {
      const Value& message = root["components"]["messages"][kind.name.c_str()];
      if (!message.HasMember("examples")) continue;
      for (const Value& example : message["examples"].GetArray()) {
        const auto check = [&](const char* part, const JsonSchema& schema) {
          const std::string fault = schema.FaultOf(example[part]);
          if (!fault.empty()) faults.push_back(kind.name + ", " + part + ": " + fault);
        };
        check("payload", kind.payload);
        if (example.HasMember("headers") && kind.headers) check("headers", *kind.headers);
      }
    }
  }
  return faults;
}

const Contract::Channel& Contract::channelNamed(const std::string& name) const {
  const auto channel = m_document->channels.find(name);
  if (channel == m_document->channels.end()) {
    throw std::runtime_error("the contract has no channel " + name);
  }
  return channel->second;
}

Contract::Verdict Contract::judge(const Channel& channel, const Message& message) {
  std::string fault;
  const Channel::Kind* const kind = channel.KindOf(message.payload, fault);
  Verdict verdict{channel.name, kind == nullptr ? "" : kind->name, {}, channel.isRequest};
  if (channel.isRequest) return verdict;
  if (kind == nullptr) {
    verdict.faults.push_back("a payload that the contract does not have: " + fault);
  }
  channel.AddFaults(message, kind, verdict.faults);
  return verdict;
}
