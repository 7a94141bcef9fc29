#include "Report.h"

#include <cmath>
#include <cstdio>
#include <optional>
#include <string>

namespace Latency {
namespace {

constexpr std::size_t kMedian = 50;
constexpr std::size_t kRare = 99;
constexpr std::size_t kLongest = 100;

Json::Value toJson(const std::optional<double>& microseconds) {
  return microseconds ? Json::Value(*microseconds) : Json::Value();
}

Json::Value toJson(const Report::Pair& pair) {
  Json::Value json;
  json["ours_median_us"] = toJson(pair.ours.Percentile(kMedian));
  json["ours_p99_us"] = toJson(pair.ours.Percentile(kRare));
  json["ours_late"] = Json::UInt64{pair.ours.Late()};
  json["peer_median_us"] = toJson(pair.peer.Percentile(kMedian));
  json["peer_p99_us"] = toJson(pair.peer.Percentile(kRare));
  json["peer_late"] = Json::UInt64{pair.peer.Late()};
  return json;
}

// "nan" stands for what there is none of.
double orNan(const std::optional<double>& microseconds) {
  return microseconds.value_or(std::nan(""));
}

void printRow(const char* title, const Samples& ours, const Samples& peer) {
  const double median = orNan(ours.Percentile(kMedian));
  const double peerMedian = orNan(peer.Percentile(kMedian));
  std::printf("%-32s %7.0f %7.0f %7.0f %5zu %12.0f %7.0f %7.0f %5zu %6.2f\n", title, median,
              orNan(ours.Percentile(kRare)), orNan(ours.Percentile(kLongest)), ours.Late(),
              peerMedian, orNan(peer.Percentile(kRare)), orNan(peer.Percentile(kLongest)),
              peer.Late(), median / peerMedian);
}

}  // namespace

Report::Report(const Options& options) : m_isJson(options.json) {
  m_document["size"] = Json::UInt64{options.sizeBytes};
  m_document["listeners"] = Json::UInt64{options.listeners};
  m_document["count"] = Json::UInt64{options.count};
  m_document["paths"] = Json::Value(Json::arrayValue);
  if (m_isJson) return;
  const std::string what = "us, " + std::to_string(options.sizeBytes) + " bytes, " +
                           std::to_string(options.listeners) + " listeners";
  std::printf("%-32s %7s %7s %7s %5s %12s %7s %7s %5s %6s\n", what.c_str(), "median", "p99",
              "longest", "late", "peer median", "p99", "longest", "late", "ratio");
}

void Report::Add(const char* path, const char* title, const std::vector<Pair>& pairs) {
  Json::Value json;
  json["path"] = path;
  Pair all;
  for (const Pair& pair : pairs) {
    json["pairs"].append(toJson(pair));
    all.ours.Add(pair.ours);
    all.peer.Add(pair.peer);
  }
  m_document["paths"].append(json);
  if (!m_isJson) printRow(title, all.ours, all.peer);
}

void Report::Finish() const {
  if (!m_isJson) return;
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["precision"] = 1;
  builder["precisionType"] = "decimal";
  std::printf("%s\n", Json::writeString(builder, m_document).c_str());
}

}  // namespace Latency
