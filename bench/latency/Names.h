#ifndef BENCH_LATENCY_NAMES_H
#define BENCH_LATENCY_NAMES_H

// What the parts of the program call each other and the channel by.
namespace Latency {

// Of the channel; BusClient.h has more of them.
constexpr const char* kEvent = "send_event";
constexpr const char* kData = "send_data";

// Of the baselines: everything that the channel has no part in.
constexpr const char* kBaselinePath = "/channel_latency";
constexpr const char* kBaselineInterface = "channel_latency.baseline";
constexpr const char* kBaselineSetTopic = "channel-latency/set";
constexpr const char* kBaselineValueTopic = "channel-latency/value";

constexpr const char* kApp = "qz";

}  // namespace Latency

#endif  // BENCH_LATENCY_NAMES_H
