#include "Cloud.h"

#include "Environment.h"
#include "Names.h"

namespace Latency {
namespace {

// The texts need no escapes.
const std::string kSetHead = std::string(R"({")") + kApp + R"(":")";
constexpr std::string_view kSetTail = R"("})";

std::string payloadOfSet(const std::string& data) {
  return kSetHead + data + std::string(kSetTail);
}

}  // namespace

Cloud::Cloud(Arrival& values)
    : Cloud(values, "things/" + Environment("LUMO_THING_ID") + "/appdatachannel/") {}

Cloud::Cloud(Arrival& values, const std::string& serviceTopic)
    : m_setTopic(serviceTopic + "set"),
      m_broker({serviceTopic + "value/" + kApp, kFloorValueTopic},
               [&values](std::string_view payload) {
                 if (payload.size() < 2) return;  // what was retained is cleared
                 values.Arrived(payload.substr(1, payload.size() - 2));
               }) {}

void Cloud::Set(const std::string& data, int qos) {
  m_broker.Publish(m_setTopic, payloadOfSet(data), qos, false);
}

void Cloud::SetFloor(const std::string& data, int qos) {
  m_broker.Publish(kFloorSetTopic, payloadOfSet(data), qos, false);
}

std::string_view Cloud::DataOfSet(std::string_view payload) {
  return payload.substr(kSetHead.size(), payload.size() - kSetHead.size() - kSetTail.size());
}

}  // namespace Latency
