#ifndef TESTS_MQTTBYTES_H
#define TESTS_MQTTBYTES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The bytes of MQTT 5 packets, as a broker sends them: right ones, and wrong ones for who wants
// them. They are the tests' own, apart from what the device service uses, so that each judges the
// other. Nothing is checked.
namespace MqttBytes {

std::string Byte(unsigned number);
std::string TwoBytes(std::size_t number);
std::string FourBytes(std::size_t number);
// A number in as many bytes as it needs.
std::string Variable(std::size_t number);
// With its length before it.
std::string Text(std::string_view text);

// A whole packet: the length comes before the body.
std::string Packet(unsigned typeAndFlags, std::string_view body);
// `properties` of all these: without their length.
std::string ConnAck(bool sessionPresent, unsigned reason = 0, std::string_view properties = {});
// PUBACK, PUBREC, PUBREL or PUBCOMP; the reason is left out when it is 0.
std::string Ack(unsigned typeAndFlags, std::size_t id, unsigned reason = 0);
// SUBACK or UNSUBACK with one reason.
std::string SubscriptionAck(unsigned type, std::size_t id, unsigned reason);
// At QoS 2 by default; `id` belongs to QoS 1 and 2 only.
std::string Publish(std::size_t id, std::string_view topic, std::string_view payload,
                    std::string_view properties = {}, unsigned typeAndFlags = 0x34);
std::string Disconnect(unsigned reason, std::string_view properties = {});

// Properties.
std::string ResponseTopic(std::string_view topic);
std::string CorrelationData(std::string_view data);

}  // namespace MqttBytes

#endif  // TESTS_MQTTBYTES_H
