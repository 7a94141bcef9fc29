// What the shared classes cost, side by side with their peers in one run:
//
//     build/release/bench/micro/bench-micro --benchmark_format=json --benchmark_repetitions=5
//         --benchmark_enable_random_interleaving=true
//
// The options are Google Benchmark's. The names on standard output are those of Benchmarks.h;
// --benchmark_filter and --benchmark_out have them with the library's suffixes, which say how the
// time was taken. Ends with 1 when a benchmark's result is wrong.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <json/version.h>
#include <boost/version.hpp>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "Benchmarks.h"

namespace {

// The reporter that the command line asks for, with the benchmarks' bare names.
class BareNameReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& context) override { return m_reporter->ReportContext(context); }
  void ReportRuns(const std::vector<Run>& runs) override {
    std::vector<Run> renamed = runs;
    for (Run& run : renamed) {
      run.run_name.iterations.clear();
      run.run_name.time_type.clear();
      m_failed = m_failed || run.error_occurred;
    }
    m_reporter->ReportRuns(renamed);
  }
  void Finalize() override { m_reporter->Finalize(); }

  // A benchmark's result was wrong; the report says which.
  bool HasFailed() const { return m_failed; }

 private:
  const std::unique_ptr<benchmark::BenchmarkReporter> m_reporter{
      benchmark::CreateDefaultDisplayReporter()};
  bool m_failed = false;
};

void addVersions() {
  benchmark::AddCustomContext("boost", BOOST_LIB_VERSION);
  benchmark::AddCustomContext("glib", std::to_string(glib_major_version) + "." +
                                          std::to_string(glib_minor_version) + "." +
                                          std::to_string(glib_micro_version));
  benchmark::AddCustomContext("jsoncpp", JSONCPP_VERSION_STRING);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    setenv("DLOG_LEVEL", "none", 1);  // before the first line: none of them is to be measured
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return EXIT_FAILURE;
    addVersions();
    Micro::RegisterDispatcherBenchmarks();
    Micro::RegisterJsonBenchmarks();
    Micro::RegisterRequestListBenchmarks();

    // As in the host, there is always a second thread: the C library takes locks and counts
    // references more cheaply until there has been one, and the benchmarks run in any order.
    std::future<void> other;  // outlives what lets it end
    std::promise<void> end;
    other = std::async(std::launch::async, [waiting = end.get_future()] { waiting.wait(); });
    BareNameReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return reporter.HasFailed() ? EXIT_FAILURE : EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench-micro: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
