#ifndef BENCH_LATENCY_ENVIRONMENT_H
#define BENCH_LATENCY_ENVIRONMENT_H

#include <chrono>
#include <string>

namespace Latency {

// A longer wait is given up.
constexpr std::chrono::seconds kLimit(60);

// Where the channel is, as ./dev run tells. Throws std::runtime_error when that is not known.
std::string Environment(const char* variable);
// Of the message bus.
std::string BusAddress();
// Of the broker, on loopback.
int BrokerPort();
// The match rule for signals.
std::string MatchRule(const char* interface, const char* member, const char* path);

// Throws std::runtime_error with what is wrong.
void Require(bool done, const std::string& whatIsWrong);

}  // namespace Latency

#endif  // BENCH_LATENCY_ENVIRONMENT_H
