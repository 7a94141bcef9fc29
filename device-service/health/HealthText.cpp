#include "health/HealthText.h"

#include <cstdio>
#include <string_view>

#include "payload/Json.h"
#include "values/TimeText.h"

namespace Lumo {
namespace {

using std::chrono::milliseconds;

struct Figure {
  const char* member;  // of the object
  const char* metric;  // its name ends with _total when it only grows
  const char* help;
};

// In the order of Counted.
constexpr std::array<Figure, kCountedKinds> kCounted{{
    {"connections", "connections_total", "Connections that the broker has accepted."},
    {"served", "requests_served_total", "Requests that were answered, whatever the result."},
    {"busy", "requests_busy_total", "Requests that were refused because too much waited."},
    {"timedOut", "requests_timed_out_total", "Requests that were not answered in time."},
    {"cancelled", "requests_cancelled_total", "Requests that their requester ended."},
    {"invalid", "requests_invalid_total", "Requests that were refused for their content."},
    {"setsRefused", "sets_refused_total", "Sets that were answered with another result than 0."},
    {"valuesTooLarge", "values_too_large_total", "Values that were larger than the broker takes."},
}};
constexpr Figure kDroppedLogLines{"logLinesDropped", "log_lines_dropped_total",
                                  "Log lines of the process that nobody took."};
constexpr Figure kProperties{"properties", "properties", "Properties that are registered."};
constexpr Figure kWaitingRequests{"waitingRequests", "waiting_requests",
                                  "Requests that are not answered."};
constexpr Figure kWaitingAnswers{"waitingAnswers", "waiting_answers",
                                 "Answers that wait for the broker."};
constexpr Figure kResidentBytes{"residentBytes", "resident_memory_bytes",
                                "Memory of the process that is in the RAM."};

// Every figure that is a whole number, once.
template <typename Function>
void forEachNumber(const Health& health, const Function& function) {
  for (std::size_t kind = 0; kind < kCountedKinds; ++kind) {
    function(kCounted.at(kind), health.counts.at(kind));
  }
  if (health.droppedLogLines) function(kDroppedLogLines, *health.droppedLogLines);
  function(kProperties, std::uint64_t{health.properties});
  function(kWaitingRequests, std::uint64_t{health.waitingRequests});
  function(kWaitingAnswers, std::uint64_t{health.waitingAnswers});
  if (health.residentBytes != 0) function(kResidentBytes, health.residentBytes);
}

void appendText(std::string& out, const char* member, std::string_view text) {
  AppendJsonString(out, member);
  out.push_back(':');
  AppendJsonString(out, text);
  out.push_back(',');
}

// `labels` stands in braces, or is empty.
void appendMetric(std::string& out, std::string_view name, const char* help,
                  const std::string& labels, const std::string& value) {
  constexpr std::string_view kTotal = "_total";
  const bool isCounter =
      name.size() > kTotal.size() && name.substr(name.size() - kTotal.size()) == kTotal;
  const std::string full = "appdatachannel_" + std::string(name);
  out += "# HELP " + full + " " + help + "\n";
  out += "# TYPE " + full + (isCounter ? " counter\n" : " gauge\n");
  out += full + labels + " " + value + "\n";
}

std::string secondsOf(Health::Time time) {
  const auto all = std::chrono::floor<milliseconds>(time.time_since_epoch()).count();
  std::array<char, 32> text{};
  const int length =
      std::snprintf(text.data(), text.size(), "%lld.%03d", static_cast<long long>(all / 1000),
                    static_cast<int>(all % 1000));
  return {text.data(), static_cast<std::size_t>(length)};
}

}  // namespace

std::string EncodeHealth(const Health& health) {
  std::string json = "{";
  appendText(json, "version", LUMO_VERSION);
  appendText(json, "started", ToText(health.started));
  if (health.lostAt) {
    appendText(json, "lastLoss", health.lastLoss);
    appendText(json, "lostAt", ToText(*health.lostAt));
  }
  forEachNumber(health, [&json](const Figure& figure, std::uint64_t number) {
    AppendJsonString(json, figure.member);
    json += ":" + std::to_string(number) + ",";
  });
  json.back() = '}';
  return json;
}

std::string EncodeMetrics(const Health& health) {
  std::string text;
  appendMetric(text, "info", "The version of the device service.", "{version=\"" LUMO_VERSION "\"}",
               "1");
  appendMetric(text, "start_time_seconds", "When the service was created.", {},
               secondsOf(health.started));
  appendMetric(text, "online", "1 while requests come from the broker.", {},
               health.link == Health::Link::Online ? "1" : "0");
  if (health.lostAt) {
    appendMetric(text, "last_loss_timestamp_seconds", "When the last connection was lost.", {},
                 secondsOf(*health.lostAt));
  }
  forEachNumber(health, [&text](const Figure& figure, std::uint64_t number) {
    appendMetric(text, figure.metric, figure.help, {}, std::to_string(number));
  });
  return text;
}

}  // namespace Lumo
