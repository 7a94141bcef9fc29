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
#include <map>
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

namespace {

using namespace fuzz;
using ThingCommon::LumoWrapper;

constexpr std::size_t kMaxSteps = 200;

class Run {
 public:
  explicit Run(Input& input) : m_input(input) {}

  void TakeSteps() {
    for (std::size_t step = 0; step < kMaxSteps && !m_input.AtEnd(); ++step) {
      const char letter = m_input.Letter();
      if (letter == '\n' || letter == ' ') continue;
      perform(letter);
    }
    Require(Platform::TakeNotifications().empty(), "only data is notified");
    RequireEqual(Channel::Apps(), m_model.Apps(), "the registry is what the model says");
  }

 private:
  void perform(char letter) {
    static const Steps<Run> kSteps = {
        {'g', [](Run& run, Input&) { run.request(false, std::exchange(run.m_list, {})); }},
        {'t', [](Run& run, Input&) { run.request(true, std::exchange(run.m_list, {})); }},
        {'G', [](Run& run, Input&) { run.request(false, std::nullopt); }},
        {'T', [](Run& run, Input&) { run.request(true, std::nullopt); }},
        {'a', [](Run& run, Input&) { run.sendData(); }},
        {'c',
         [](Run&, Input&) {
           Platform::DeliverCancel(Platform::NewRequest());
           Channel::WaitForWorker();
         }},
        {'p',
         [](Run&, Input& input) {
           const int status = input.Number();
           Platform::DeliverProtocolStatus(input.Line(), status);
         }},
        {'P',
         [](Run&, Input& input) { Platform::DeliverProtocolStatus(std::nullopt, input.Number()); }},
        {'u',
         [](Run&, Input&) {
           LumoWrapper::getCallback(nullptr, nullptr, nullptr, nullptr);
           LumoWrapper::setCallback(nullptr, nullptr, nullptr, nullptr);
           LumoWrapper::cancelCallback(nullptr, nullptr, nullptr);
           LumoWrapper::protocolStatusCallback(nullptr, {nullptr, 0}, 0, nullptr);
         }},
        {'l', [](Run& run, Input&) { run.m_refuseList = true; }},
        {'x', [](Run& run, Input& input) { run.m_refusedProperty = takeSmall(input); }},
        {'f', [](Run& run, Input& input) { run.m_refusedPush = takeSmall(input); }},
        {'N', [](Run& run, Input&) {
           if (!run.m_list.empty()) run.m_list.back().name.reset();
         }}};
    if (!Perform(kSteps, letter, *this, m_input)) addProperty(letter);
  }

  static unsigned takeSmall(Input& input) { return static_cast<unsigned>(input.Number()) % 16; }

  void addProperty(char letter) {
    static const std::map<char, lumo_property_type> kTypes = {
        {'b', LUMO_PROPERTY_TYPE_BOOL},        {'i', LUMO_PROPERTY_TYPE_INT},
        {'d', LUMO_PROPERTY_TYPE_DOUBLE},      {'s', LUMO_PROPERTY_TYPE_STRING},
        {'j', LUMO_PROPERTY_TYPE_JSON_STRING}, {'y', LUMO_PROPERTY_TYPE_BYTES},
        {'r', LUMO_PROPERTY_TYPE_STRING}};
    const bool hasValue = letter >= 'a';
    const auto type = kTypes.find(hasValue ? letter : static_cast<char>(letter - 'A' + 'a'));
    if (type == kTypes.end() || letter == 'D' || letter == 'R') return;
    Property property;
    property.type = type->second;
    m_input.Field();  // of the letter
    property.name = m_input.Field();
    if (letter == 'r') {
      property.type = m_input.Number();
    } else if (property.type <= LUMO_PROPERTY_TYPE_DOUBLE) {
      property.number = m_input.Number();
    } else {
      const std::string text = m_input.Line();
      if (hasValue) property.text = text;
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
      if (IsBusText(app)) {
        const BusMessage reply =
            InProcessBus::Call("register_app", g_variant_new("(s)", app.c_str()));
        RequireEqual(reply, CodeReply(registered), "registering is answered");
      }
    }
    RequireEqual(Channel::Send(app, data), m_model.Send(app, data), "sending is answered");
    const auto notifications = Platform::TakeNotifications();
    if (m_model.Apps().count(app) == 0) {
      Require(notifications.empty(), "only a registered application's data is notified");
      return;
    }
    RequireEqual(notifications, {{StringProperty(app, data)}}, "data is notified as it came");
  }

  void request(bool isSet, const std::optional<std::vector<Property>>& list) {
    std::vector<BusMessage> signals;
    std::optional<Response> expected =
        m_model.Request(isSet, list.value_or(std::vector<Property>()), signals);
    if (expected) haveRefused(*expected);
    void* const handle = Platform::NewRequest();
    Platform::Deliver(isSet, handle, list);
    Channel::WaitForWorker();
    for (const auto operation :
         {Platform::kCreateList, Platform::kCreateProperty, Platform::kPushProperty}) {
      Platform::Fail(operation, 0);
    }

    RequireEqual(Platform::TakeResponse(handle), expected, "the answer is what the model says");
    checkBus(signals);
  }

  // The library refuses what the input says, and the answer lacks it.
  void haveRefused(Response& expected) {
    if (std::exchange(m_refuseList, false)) {
      Platform::Fail(Platform::kCreateList, 1);
      expected.listWasNull = true;
      expected.properties.clear();
    }
    for (const auto operation : {Platform::kCreateProperty, Platform::kPushProperty}) {
      auto& refused = operation == Platform::kCreateProperty ? m_refusedProperty : m_refusedPush;
      if (!refused) continue;
      Platform::Fail(operation, 1, *refused);
      if (*refused < expected.properties.size()) {
        expected.properties.erase(expected.properties.begin() + static_cast<int>(*refused));
      }
      refused.reset();
    }
  }

  void checkBus(const std::vector<BusMessage>& signals) {
    RequireEqual(InProcessBus::TakeSignals(), signals, "applications are told what the model says");
    RequireEqual(InProcessBus::Call("get_cloud_connection", g_variant_new("()")),
                 m_model.Connection(), "the connection is what the cloud said");
    RequireEqual(InProcessBus::Call("get_thing_information", g_variant_new("()")),
                 m_model.Information(), "the information is what the cloud said");
  }

  Input& m_input;
  ChannelModel m_model;
  std::vector<Property> m_list;
  bool m_refuseList = false;
  std::optional<unsigned> m_refusedProperty;  // counted from 0
  std::optional<unsigned> m_refusedPush;
};

// One channel for all inputs.
void startChannel() {
  Require(CreatePlugin(), "the channel starts");
  InProcessBus::AcquireBus();
  InProcessBus::AcquireName();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool started = (startChannel(), true);
  Channel::ForgetEverything();
  Platform::Forget();
  InProcessBus::Forget();
  Input input(data, size);
  Run(input).TakeSteps();
  return 0;
}
