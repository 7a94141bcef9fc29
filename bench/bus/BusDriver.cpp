// Calls send_data of several services in alternation, and prints what each block of calls took, as
// JSON:
//
//     {"LABEL": [{"calls_per_second": 1.0, "median_us": 1.0, "p99_us": 1.0}, ...], ...}
//
// The order of the destinations is turned round with every block. One block of each warms up.
#include <json/json.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <vector>

#include "Caller.h"
#include "Options.h"

namespace {

Json::Value describe(const Block& block) {
  const std::vector<double>& times = block.microseconds;
  Json::Value result;
  result["calls_per_second"] = static_cast<double>(times.size()) / block.seconds;
  result["median_us"] = times[times.size() / 2];
  result["p99_us"] = times[(times.size() * 99 + 99) / 100 - 1];
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Options options = Options::Parse(argc, argv);
    std::vector<std::unique_ptr<Caller>> callers;
    for (const Destination& destination : options.destinations) {
      callers.push_back(std::make_unique<Caller>(destination, options));
    }
    for (const auto& caller : callers) caller->Run();
    Json::Value results;
    for (std::size_t i = 0; i < options.pairs; ++i) {
      for (const auto& caller : callers) results[caller->Label()].append(describe(caller->Run()));
      std::reverse(callers.begin(), callers.end());
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    std::cout << Json::writeString(writer, results) << std::endl;
    return EXIT_SUCCESS;
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr, "bus-driver: %s\n", error.what());
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bus-driver: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
