// A soak of the whole channel:
//
//     channel-soak SECONDS [pressure]
//
// Sixteen applications with 200 connections and four requesters of the cloud do everything that
// they can, in a random order, for SECONDS, with every answer checked against a model, while the
// broker is started again in the middle of every minute and applications are killed. SOAK_SEED
// makes the same choices again; the threads' timing is its own. Then, with `pressure`, what loads
// do to others.
//
// Starts a message bus, a broker and the host of its own. Ends with a line of totals, and with 1
// when anything was not as the model has it or the host has grown.

#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>
#include <string_view>
#include <system_error>

#include "Channel.h"
#include "MainLoopThread.h"
#include "Pressure.h"
#include "SoakRun.h"
#include "Tally.h"

namespace {

constexpr int kUsage = 2;
constexpr int kInterrupted = 130;

volatile std::sig_atomic_t endIsAskedFor = 0;

bool parse(std::string_view text, std::uint64_t& number) {
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && rest == text.data() + text.size();
}

int soak(std::uint64_t seconds, std::uint64_t seed, bool withPressure) {
  Soak::Tally tally;
  Soak::Channel channel;
  // GDBus keeps a connection, and its socket, until it could say there that it is closed.
  const MainLoopThread mainLoop;
  try {
    Soak::SoakRun run(channel, seed, tally, endIsAskedFor);
    if (!run.Run(std::chrono::seconds(seconds))) return kInterrupted;
    if (withPressure) Soak::MeasurePressure(channel, tally);
    channel.EndHost();
    const bool isRight = tally.mismatches == 0;
    std::printf("%s: %s\n", isRight ? "ok" : "NOT OK", run.Totals().c_str());
    return isRight ? EXIT_SUCCESS : EXIT_FAILURE;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "channel-soak: %s\n%s\n", error.what(), channel.host.Errors().c_str());
    return EXIT_FAILURE;
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::uint64_t seconds = 0;
  std::uint64_t seed = std::random_device()();
  const char* const givenSeed = std::getenv("SOAK_SEED");
  const bool withPressure = argc == 3 && std::string_view(argv[2]) == "pressure";
  const bool isRight = (argc == 2 || withPressure) && parse(argv[1], seconds) && seconds >= 10 &&
                       (givenSeed == nullptr || parse(givenSeed, seed));
  if (!isRight) {
    std::fprintf(stderr,
                 "usage: [SOAK_SEED=NUMBER] channel-soak SECONDS [pressure]; at least 10\n");
    return kUsage;
  }
  std::printf("SOAK_SEED=%llu\n", static_cast<unsigned long long>(seed));
  std::fflush(stdout);
  // The programs that are started do not inherit these.
  for (const int number : {SIGINT, SIGTERM}) {
    std::signal(number, [](int /*number*/) { endIsAskedFor = 1; });
  }
  try {
    return soak(seconds, seed, withPressure);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "channel-soak: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
