#ifndef TESTS_FUZZ_CONVERSATION_H
#define TESTS_FUZZ_CONVERSATION_H

#include <json/json.h>
#include <mosquitto.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Input.h"
#include "Judges.h"
#include "Require.h"
#include "link/Outbox.h"
#include "link/RemoteRequests.h"
#include "link/Topics.h"
#include "payload/Payload.h"
#include "service/Service.h"
#include "values/Handle.h"
#include "values/HandleTable.h"
#include "values/PropertyItem.h"
#include "values/PropertyList.h"
#include "values/TopicText.h"

namespace fuzz {

// Messages of the broker that come in without a connection, what a plug-in does with the requests
// that they make, and the answers that go out. Every request must be answered as it should be. The
// input is lines:
//   g RESPONSE CORRELATION PAYLOAD, s ..., c ...   a get, a set, a cancel
//   t TOPIC PAYLOAD, r TOPIC PAYLOAD               any topic; r: it was retained
//   v PROPERTY                                     a retained value of the property
//   a NUMBER CODE                                  the plug-in answers its request of that number
//   A NUMBER CODE                                  the same, as if it were of the other kind
// RESPONSE and CORRELATION may be "-": none.
class Conversation {
 public:
  explicit Conversation(Input& input)
      : m_input(input), m_link(PlugIn::Get().TheService()), m_topics(m_link.TheTopics()) {}

  void Run() {
    for (std::size_t step = 0; step < kMaxSteps && !m_input.AtEnd(); ++step) {
      const char letter = m_input.Letter();
      if (letter == 'a' || letter == 'A') {
        answerAsPlugIn(letter == 'A');
      } else if (std::string("gsctrv").find(letter) != std::string::npos) {
        m_input.Field();
        receive(letter);
      }
      checkOutbox();
    }
    for (const Waiting& waiting : m_waiting) {
      Require(PlugIn::Get().TheService().Cancel(waiting.handle), "a request waits until it ends");
    }
    m_cancelled = std::move(m_waiting);
    noteRequests();
    checkOutbox();
    cancelAll();
  }

 private:
  static constexpr std::size_t kMaxSteps = 100;
  // Few requests, so that it does not take long until there are too many; and nothing times out.
  static constexpr Lumo::ServiceLimits kLimits{8, std::chrono::hours(1)};

  // A plug-in that keeps the requests it gets until the conversation answers them.
  class PlugIn {
   public:
    struct Request {
      Lumo::RequestKind kind;
      void* handle;
      std::vector<std::string> names;
    };

    static PlugIn& Get() {
      static PlugIn plugIn;
      return plugIn;
    }

    Lumo::Service& TheService() { return m_service; }

    // Waits until so many requests and cancellations have come since the last time; gives the
    // former.
    std::vector<Request> Take(std::size_t requests, std::size_t cancellations) {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_changed.wait(
          lock, [&] { return m_requests.size() >= requests && m_cancellations >= cancellations; });
      Require(m_requests.size() == requests && m_cancellations == cancellations,
              "the plug-in is called once per request and cancellation");
      m_cancellations = 0;
      return std::exchange(m_requests, {});
    }

   private:
    PlugIn()
        : m_service(Lumo::NewHandle(), "channel", "",
                    {[](void*, lumo_string, lumo_protocol_status, void*) {},
                     &onRequest<Lumo::RequestKind::Get>, &onRequest<Lumo::RequestKind::Set>,
                     &onCancel, this},
                    m_lists, kLimits) {}
    ~PlugIn() = default;
    PlugIn(const PlugIn&) = delete;
    PlugIn& operator=(const PlugIn&) = delete;

    void note(Lumo::RequestKind kind, void* request, void* list) {
      std::vector<std::string> names;
      const std::shared_ptr<Lumo::PropertyList> properties = m_lists.Find(list);
      Require(properties != nullptr, "a callback's list is there while the callback runs");
      for (const Lumo::PropertyItem* item = properties->First(); item != nullptr;
           item = properties->Next(*item)) {
        names.push_back(item->Get().name);
      }
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_requests.push_back({kind, request, std::move(names)});
      m_changed.notify_all();
    }

    template <Lumo::RequestKind kKind>
    static void onRequest(void* /*service*/, void* request, void* list, void* self) {
      static_cast<PlugIn*>(self)->note(kKind, request, list);
    }
    static void onCancel(void* /*service*/, void* /*request*/, void* self) {
      auto* const plugIn = static_cast<PlugIn*>(self);
      const std::lock_guard<std::mutex> lock(plugIn->m_mutex);
      ++plugIn->m_cancellations;
      plugIn->m_changed.notify_all();
    }

    Lumo::HandleTable<Lumo::PropertyList> m_lists;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Request> m_requests;  // guarded by m_mutex
    std::size_t m_cancellations = 0;  // guarded by m_mutex
    // Last: its callbacks use all of the above. Every conversation ends its requests.
    Lumo::Service m_service;
  };

  // What stands between the broker and the service, without a connection.
  class Link {
   public:
    explicit Link(Lumo::Service& service)
        : m_requests(
              service, m_topics, [this](const Lumo::RemoteRequests::End& end) { send(end); },
              [this] { return m_outbox.IsCrowded(); }) {}

    const Lumo::Topics& TheTopics() const { return m_topics; }
    std::optional<Lumo::Outbox::Item> Next() { return m_outbox.Next(); }
    void ValueDropped(const std::string& property) { m_outbox.ValueDropped(property); }

    void Receive(const Lumo::Mqtt::Publish& message) {
      if (const std::optional<std::string> property = m_topics.PropertyOf(message.topic)) {
        if (message.retain && Lumo::IsTopicLevel(*property)) m_outbox.ValueFound(*property);
      } else if (message.retain) {
        return;
      } else if (message.topic == m_topics.Cancel()) {
        m_requests.Cancel(message);
      } else if (message.topic == m_topics.Get()) {
        take(Lumo::RequestKind::Get, message);
      } else if (message.topic == m_topics.Set()) {
        take(Lumo::RequestKind::Set, message);
      }
    }

   private:
    void take(Lumo::RequestKind kind, const Lumo::Mqtt::Publish& message) {
      // At QoS 0, at which nothing is held back.
      const Lumo::RemoteRequests::Taken taken = m_requests.Take(kind, message, 0);
      Require(taken != Lumo::RemoteRequests::Taken::Not,
              "a service that is not closed takes every request");
    }

    void send(const Lumo::RemoteRequests::End& end) {
      Require(!end.answer || m_outbox.Add(*end.answer), "there is room for few answers");
    }

    const Lumo::Topics m_topics{"tv", "channel"};
    Lumo::Outbox m_outbox;
    Lumo::RemoteRequests m_requests;
  };

  struct Waiting {
    Lumo::RequestKind kind;
    void* handle;
    std::string responseTopic;  // empty: no answer
    std::string correlation;
    std::vector<std::string> names;
  };

  // No request is left: nothing is cancelled any more.
  void cancelAll() {
    for (const std::string& correlation : m_correlations) {
      Lumo::Mqtt::Publish message;
      message.topic = m_topics.Cancel();
      message.correlation = correlation;
      m_link.Receive(message);
    }
    PlugIn::Get().Take(0, 0);
    checkOutbox();
  }

  std::string takeOptional() {
    std::string field = m_input.Field();
    return field == "-" ? std::string() : field;
  }

  void receive(char letter) {
    std::string topic;
    std::string responseTopic;
    std::string correlation;
    Lumo::Mqtt::Publish message;
    message.qos = 2;
    if (letter == 't' || letter == 'r') {
      topic = m_input.Field();
      message.retain = letter == 'r';
    } else if (letter == 'v') {
      topic = m_topics.Value(m_input.Field());
      message.retain = true;
    } else {
      topic = letter == 'g' ? m_topics.Get() : letter == 's' ? m_topics.Set() : m_topics.Cancel();
      responseTopic = takeOptional();
      correlation = takeOptional();
    }
    message.responseTopic = responseTopic;
    message.correlation = correlation;
    // The codec lets only these pass.
    const bool canArrive =
        JudgeTopic(topic) &&
        (message.responseTopic.empty() ||
         mosquitto_validate_utf8(message.responseTopic.data(),
                                 static_cast<int>(message.responseTopic.size())) ==
             MOSQ_ERR_SUCCESS);
    const std::string line = m_input.Line();
    if (!canArrive) return;
    const ExactBytes payload(line);
    message.topic = topic;
    message.payload = payload.View();
    expect(message);
    m_link.Receive(message);
    m_correlations.insert(correlation);
    noteRequests();
  }

  // What the message must lead to.
  void expect(const Lumo::Mqtt::Publish& message) {
    const bool isGet = message.topic == m_topics.Get();
    const bool isSet = message.topic == m_topics.Set();
    m_expectedRequests = 0;
    if (message.retain) return;  // no request is a standing order
    const std::string responseTopic(
        m_topics.MayAnswerTo(message.responseTopic) ? message.responseTopic : "");
    if (message.topic == m_topics.Cancel()) {
      const auto isMeant = [&message](const Waiting& waiting) {
        return !message.correlation.empty() && waiting.correlation == message.correlation &&
               (message.responseTopic.empty() || waiting.responseTopic == message.responseTopic);
      };
      const auto rest = std::stable_partition(m_waiting.begin(), m_waiting.end(),
                                              [&](const Waiting& w) { return !isMeant(w); });
      m_cancelled.assign(std::make_move_iterator(rest), std::make_move_iterator(m_waiting.end()));
      m_waiting.erase(rest, m_waiting.end());
    } else if (isGet || isSet) {
      const std::optional<std::vector<std::string>> names =
          isGet ? Lumo::DecodeNames(message.payload).value : namesOf(message.payload);
      const bool isTaken = names && m_waiting.size() < kLimits.unansweredRequests;
      if (isTaken) {
        m_expectedRequests = 1;
        m_next = {isGet ? Lumo::RequestKind::Get : Lumo::RequestKind::Set, nullptr, responseTopic,
                  std::string(message.correlation), *names};
      } else if (!responseTopic.empty()) {
        m_answers.push_back({responseTopic, std::string(message.correlation), false, 0, 0});
      }
    }
  }

  static std::optional<std::vector<std::string>> namesOf(std::string_view set) {
    const Lumo::Decoded<Lumo::Properties> decoded = Lumo::DecodeProperties(set);
    if (!decoded.value) return std::nullopt;
    std::vector<std::string> names;
    for (const Lumo::Property& property : *decoded.value) names.push_back(property.name);
    return names;
  }

  void noteRequests() {
    for (PlugIn::Request& request : PlugIn::Get().Take(m_expectedRequests, m_cancelled.size())) {
      Require(request.kind == m_next.kind, "a get is a get, a set is a set");
      m_next.handle = request.handle;
      RequireEqual(request.names, m_next.names, "a request is about what the message names");
      m_waiting.push_back(std::move(m_next));
    }
    m_expectedRequests = 0;
    // Until then a cancelled one keeps its place.
    for (const Waiting& cancelled : m_cancelled) {
      Require(PlugIn::Get().TheService().Answer(cancelled.kind, cancelled.handle, 0, {}) != 0,
              "a late answer is not taken");
    }
    m_cancelled.clear();
  }

  void answerAsPlugIn(bool mistakesTheKind) {
    m_input.Field();
    const auto number = static_cast<std::size_t>(m_input.Number());
    const int code = m_input.Number();
    m_input.Line();
    if (m_waiting.empty()) return;
    const auto waiting = m_waiting.begin() + static_cast<std::ptrdiff_t>(number % m_waiting.size());
    const bool isGet = (waiting->kind == Lumo::RequestKind::Get) != mistakesTheKind;
    const Lumo::RequestKind kind = isGet ? Lumo::RequestKind::Get : Lumo::RequestKind::Set;
    Lumo::Service& service = PlugIn::Get().TheService();
    const lumo_error result =
        service.Answer(kind, waiting->handle, code, propertiesOf(waiting->names));
    RequireEqual(result != 0, mistakesTheKind, "an answer of the request's kind is taken");
    if (mistakesTheKind) return;
    Require(service.Answer(kind, waiting->handle, code, {}) != 0, "a second answer is not");
    if (!waiting->responseTopic.empty()) {
      const std::set<std::string> names(waiting->names.begin(), waiting->names.end());
      m_answers.push_back({waiting->responseTopic, waiting->correlation, true, code, names.size()});
    }
    m_waiting.erase(waiting);
  }

  // Every name, with a value that depends on its place.
  static Lumo::Properties propertiesOf(const std::vector<std::string>& names) {
    Lumo::PropertyList list;
    for (std::size_t i = 0; i < names.size(); ++i) {
      Lumo::Property property{names[i], valueOf(names[i], i)};
      list.Push(std::make_unique<Lumo::PropertyItem>(std::move(property)).release(),
                static_cast<int>(i % 3));
    }
    return list.TakeProperties();
  }

  static Lumo::PropertyValue valueOf(const std::string& name, std::size_t place) {
    const std::array<Lumo::PropertyValue, 5> values = {
        name, Lumo::JsonText{name}, true, static_cast<int>(place), static_cast<double>(place) / 3};
    return values.at(place % values.size());
  }

  void checkOutbox() {
    while (const std::optional<Lumo::Outbox::Item> item = m_link.Next()) {
      if (const auto* answer = std::get_if<Lumo::Outbox::Answer>(&*item)) {
        checkAnswer(*answer);
      } else if (const auto* value = std::get_if<Lumo::Outbox::Value>(&*item)) {
        Require(Lumo::IsTopicLevel(value->property), "what is cleared is a property's");
        m_link.ValueDropped(value->property);
      }
    }
    Require(m_answers.empty(), "every request is answered");
  }

  void checkAnswer(const Lumo::Outbox::Answer& answer) {
    Require(!m_answers.empty(), "nothing is answered that was not asked");
    const ExpectedAnswer expected = m_answers.front();
    m_answers.erase(m_answers.begin());
    RequireEqual(answer.topic, expected.topic, "an answer goes where the request says");
    RequireEqual(answer.correlation, expected.correlation, "an answer says what it answers");
    Require(JudgeTopic(answer.topic), "an answer can be published");
    RequirePayload(answer.payload);
    // Not with the library's own reader: a value that it takes may be nested too deep for it here.
    Json::Value payload;
    std::istringstream(answer.payload) >> payload;
    RequireEqual(payload.isMember("result"), expected.hasResult, "an answer is a result or error");
    RequireEqual(payload.isMember("error"), !expected.hasResult, "an answer is a result or error");
    if (expected.hasResult) {
      RequireEqual<std::size_t>(payload["properties"].size(), expected.properties,
                                "a result has every property");
      RequireEqual(payload["result"].asInt(), expected.code, "a result is the plug-in's");
    }
  }

  struct ExpectedAnswer {
    std::string topic;
    std::string correlation;
    bool hasResult;
    lumo_error code;
    std::size_t properties;
  };

  Input& m_input;
  Link m_link;
  const Lumo::Topics& m_topics;
  std::set<std::string> m_correlations;  // of all messages
  std::vector<Waiting> m_waiting;
  std::vector<ExpectedAnswer> m_answers;
  Waiting m_next{};
  std::size_t m_expectedRequests = 0;
  std::vector<Waiting> m_cancelled;  // that the plug-in must hear of
};

}  // namespace fuzz

#endif  // TESTS_FUZZ_CONVERSATION_H
