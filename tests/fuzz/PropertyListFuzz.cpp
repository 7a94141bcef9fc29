// Requests of the cloud, with property lists of every kind: through the library's callbacks, the
// dispatcher and the control's handlers, out as a response and as signals, and what applications
// are told afterwards. Compared with the model.
//
// The input is lines. They fill a list,
//   b NAME 0/1, i NAME NUMBER, d NAME NUMBER   a bool, int or double
//   s NAME TEXT, j NAME JSON, y NAME BYTES     a text, JSON or bytes
//   r NAME TYPE                                a property of any type
//   B, I: one that cannot be read; S, J, Y: one whose text is a null pointer
//   N                                          the last property gets a null name
// or do something:
//   g, t      a get or set with the list, which is empty then; G, T: with a null list
//   a APP DATA   the application sends data, and registers before if it is not registered
//   c         a request is cancelled
//   p STATUS TEXT, P STATUS   the library reports a protocol status, of that name or of none
//   u         all callbacks with null user data
//   l, x NUMBER, f NUMBER     the library refuses the next answer's list, or the property of that
//             number, to make it or to put it into the list
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "AppDataChannelCore.h"
#include "Channel.h"
#include "ChannelModel.h"
#include "InProcessBus.h"
#include "Input.h"
#include "LumoWrapper.h"
#include "Platform.h"
#include "Require.h"
#include "Target.h"

namespace {

using fuzz::BusMessage;
using fuzz::ChannelModel;
using fuzz::InProcessBus;
using fuzz::Platform;
using fuzz::Property;
using fuzz::Require;
using fuzz::RequireEqual;
using fuzz::Response;
using ThingCommon::LumoWrapper;

constexpr std::size_t kMaxSteps = 200;

class Run {
 public:
  explicit Run(fuzz::Input& input) : m_input(input) {}

  void Steps() {
    for (std::size_t step = 0; step < kMaxSteps && !m_input.AtEnd(); ++step) {
      const char letter = m_input.Letter();
      if (letter == '\n' || letter == ' ') continue;
      perform(letter);
    }
    Require(m_platform.TakeNotifications().empty(), "only data is notified");
    RequireEqual(fuzz::Channel::Apps(), m_model.Apps(), "the registry is what the model says");
  }

 private:
  void perform(char letter) {
    switch (letter) {
      case 'g':
      case 't':
        request(letter == 't', true);
        return;
      case 'G':
      case 'T':
        m_list.clear();
        request(letter == 'T', false);
        return;
      case 'a':
        sendData();
        return;
      case 'c':
        m_platform.DeliverCancel(m_platform.NewRequest());
        fuzz::Channel::WaitForWorker();
        return;
      case 'p':
      case 'P': {
        const int status = m_input.Number();
        std::optional<std::string> protocol;
        if (letter == 'p') protocol = m_input.Line();
        m_platform.DeliverProtocolStatus(protocol, status);
        return;
      }
      case 'u':
        LumoWrapper::getCallback(nullptr, nullptr, nullptr, nullptr);
        LumoWrapper::setCallback(nullptr, nullptr, nullptr, nullptr);
        LumoWrapper::cancelCallback(nullptr, nullptr, nullptr);
        LumoWrapper::protocolStatusCallback(nullptr, {nullptr, 0}, 0, nullptr);
        return;
      case 'l':
        m_refuseList = true;
        return;
      case 'x':
        m_refusedProperty = static_cast<unsigned>(m_input.Number()) % 16;
        return;
      case 'f':
        m_refusedPush = static_cast<unsigned>(m_input.Number()) % 16;
        return;
      case 'N':
        if (!m_list.empty()) m_list.back().name.reset();
        return;
      default:
        addProperty(letter);
    }
  }

  void addProperty(char letter) {
    Property property;
    switch (letter) {
      case 'b':
      case 'B':
        property.type = LUMO_PROPERTY_TYPE_BOOL;
        break;
      case 'i':
      case 'I':
        property.type = LUMO_PROPERTY_TYPE_INT;
        break;
      case 'd':
        property.type = LUMO_PROPERTY_TYPE_DOUBLE;
        break;
      case 's':
      case 'S':
        property.type = LUMO_PROPERTY_TYPE_STRING;
        break;
      case 'j':
      case 'J':
        property.type = LUMO_PROPERTY_TYPE_JSON_STRING;
        break;
      case 'y':
      case 'Y':
        property.type = LUMO_PROPERTY_TYPE_BYTES;
        break;
      case 'r':
        break;
      default:
        return;
    }
    m_input.Field();  // of the letter
    property.name = m_input.Field();
    if (letter == 'r') {
      property.type = m_input.Number();
    } else if (property.type <= LUMO_PROPERTY_TYPE_DOUBLE) {
      property.number = m_input.Number();
    } else {
      const std::string text = m_input.Line();
      if (letter >= 'a') property.text = text;
    }
    property.unreadable = letter == 'B' || letter == 'I';
    m_list.push_back(property);
  }

  void sendData() {
    m_input.Field();  // of the letter
    const std::string app = m_input.Field();
    const std::string data = m_input.Line();
    if (m_model.Apps().count(app) == 0) {
      const int registered = m_model.Register(app);
      if (fuzz::IsBusText(app)) {
        const BusMessage reply = m_bus.Call("register_app", g_variant_new("(s)", app.c_str()));
        RequireEqual(reply, {"", {std::to_string(registered)}}, "registering is answered");
      }
    }
    RequireEqual(fuzz::Channel::Send(app, data), m_model.Send(app, data), "sending is answered");
    const auto notifications = m_platform.TakeNotifications();
    if (m_model.Apps().count(app) == 0) {
      Require(notifications.empty(), "only a registered application's data is notified");
      return;
    }
    const Property notified{app, LUMO_PROPERTY_TYPE_STRING, 0, data, false};
    RequireEqual(notifications, {{notified}}, "data is notified as it came");
  }

  void request(bool isSet, bool withList) {
    const std::vector<Json::Value> items = ChannelModel::ToItems(m_list);
    std::vector<BusMessage> signals;
    std::optional<ChannelModel::Answer> answer =
        isSet ? m_model.Set(items, signals) : m_model.Get(items);

    Response expected = answer ? ChannelModel::ToResponse(isSet, *answer) : Response();
    if (answer) haveRefused(expected);
    void* const handle = m_platform.NewRequest();
    if (withList) {
      isSet ? m_platform.DeliverSet(handle, m_list) : m_platform.DeliverGet(handle, m_list);
    } else {
      isSet ? m_platform.DeliverSetWithoutList(handle) : m_platform.DeliverGetWithoutList(handle);
    }
    m_list.clear();
    fuzz::Channel::WaitForWorker();
    for (const auto operation :
         {Platform::kCreateList, Platform::kCreateProperty, Platform::kPushProperty}) {
      m_platform.Fail(operation, 0);
    }

    const std::optional<Response> response = m_platform.TakeResponse(handle);
    RequireEqual(response.has_value(), answer.has_value(), "a request that converts is answered");
    if (response) RequireEqual(*response, expected, "the answer is what the model says");
    checkBus(signals);
  }

  // The library refuses what the input says, and the answer lacks it.
  void haveRefused(Response& expected) {
    if (std::exchange(m_refuseList, false)) {
      m_platform.Fail(Platform::kCreateList, 1);
      expected.listWasNull = true;
      expected.properties.clear();
    }
    for (const auto operation : {Platform::kCreateProperty, Platform::kPushProperty}) {
      auto& refused = operation == Platform::kCreateProperty ? m_refusedProperty : m_refusedPush;
      if (!refused) continue;
      m_platform.Fail(operation, 1, *refused);
      if (*refused < expected.properties.size()) {
        expected.properties.erase(expected.properties.begin() + static_cast<int>(*refused));
      }
      refused.reset();
    }
  }

  void checkBus(const std::vector<BusMessage>& signals) {
    RequireEqual(m_bus.TakeSignals(), signals, "applications are told what the model says");
    RequireEqual(m_bus.Call("get_cloud_connection", g_variant_new("()")),
                 {"", {m_model.IsConnected() ? "true" : "false"}},
                 "the connection is what the cloud said");
    RequireEqual(m_bus.Call("get_thing_information", g_variant_new("()")),
                 {"", {m_model.Information()}}, "the information is what the cloud said");
  }

  fuzz::Input& m_input;
  Platform& m_platform = Platform::Get();
  InProcessBus& m_bus = InProcessBus::Get();
  ChannelModel m_model;
  std::vector<Property> m_list;
  bool m_refuseList = false;
  std::optional<unsigned> m_refusedProperty;  // counted from 0
  std::optional<unsigned> m_refusedPush;
};

// One channel for all inputs.
void startChannel() {
  InProcessBus& bus = InProcessBus::Get();
  Require(CreatePlugin(), "the channel starts");
  bus.AcquireBus();
  bus.AcquireName();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool started = (startChannel(), true);
  fuzz::Channel::ForgetEverything();
  Platform::Get().Forget();
  InProcessBus::Get().Forget();
  fuzz::Input input(data, size);
  Run(input).Steps();
  return 0;
}
