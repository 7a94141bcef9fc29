#ifndef BENCH_LATENCY_REPORT_H
#define BENCH_LATENCY_REPORT_H

#include <json/json.h>

#include <vector>

#include "Options.h"
#include "Samples.h"

namespace Latency {

// The results on standard output: a table whose rows come as the paths do, or one JSON document at
// the end.
class Report {
 public:
  // A block of the path's samples, and one of its baseline's.
  struct Pair {
    Samples ours;
    Samples peer;
  };

  explicit Report(const Options& options);

  void Add(const char* path, const char* title, const std::vector<Pair>& pairs);
  void Finish() const;

 private:
  const bool m_isJson;
  Json::Value m_document;
};

}  // namespace Latency

#endif  // BENCH_LATENCY_REPORT_H
