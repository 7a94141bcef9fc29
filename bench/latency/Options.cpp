#include "Options.h"

#include <getopt.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <optional>
#include <string>
#include <system_error>

namespace Latency {
namespace {

constexpr const char* kUsage =
    "usage: channel-latency [--json] [--count N] [--pairs N] [--size BYTES] [--listeners N]";

constexpr std::size_t kMaxCount = 1000000;
constexpr std::size_t kMinSizeBytes = 16;  // for the number that tells the texts apart
constexpr std::size_t kMaxSizeBytes = 65536;
constexpr std::size_t kMaxListeners = 200;  // a bus has 256 connections for a user by default

[[noreturn]] void refuse(const std::string& what) {
  throw Options::Error(what + "\n" + kUsage);
}

std::size_t toNumber(const char* name, const char* text, std::size_t least, std::size_t most) {
  std::size_t number = 0;
  const char* const end = text + std::strlen(text);
  const auto [rest, error] = std::from_chars(text, end, number);
  if (error != std::errc() || rest != end || number < least || number > most) {
    refuse(std::string(name) + " is a number from " + std::to_string(least) + " to " +
           std::to_string(most) + ", not '" + text + "'");
  }
  return number;
}

}  // namespace

Options Options::Parse(int argc, char** argv) {
  const std::array<option, 6> known{{{"json", no_argument, nullptr, 'j'},
                                     {"count", required_argument, nullptr, 'c'},
                                     {"pairs", required_argument, nullptr, 'p'},
                                     {"size", required_argument, nullptr, 's'},
                                     {"listeners", required_argument, nullptr, 'l'},
                                     {nullptr, 0, nullptr, 0}}};
  Options options;
  std::optional<std::size_t> count;
  std::optional<std::size_t> pairs;
  opterr = 0;  // the messages are our own
  for (;;) {
    const int name = getopt_long(argc, argv, ":", known.data(), nullptr);
    if (name == -1) break;
    switch (name) {
      case 'j':
        options.json = true;
        break;
      case 'c':
        count = toNumber("--count", optarg, 1, kMaxCount);
        break;
      case 'p':
        pairs = toNumber("--pairs", optarg, 1, kMaxCount);
        break;
      case 's':
        options.sizeBytes = toNumber("--size", optarg, kMinSizeBytes, kMaxSizeBytes);
        break;
      case 'l':
        options.listeners = toNumber("--listeners", optarg, 0, kMaxListeners);
        break;
      case ':':
        refuse(std::string(argv[optind - 1]) + " wants a number");
      default:
        refuse(std::string("what is ") + argv[optind - 1] + "?");
    }
  }
  // The count may stand alone, too.
  if (optind < argc && !count) count = toNumber("COUNT", argv[optind++], 1, kMaxCount);
  if (optind < argc) refuse(std::string("what is ") + argv[optind] + "?");

  options.count = count.value_or(options.count);
  if (pairs && *pairs > options.count) refuse("--pairs is more than the count of samples");
  options.pairs = pairs.value_or(std::min(options.pairs, options.count));
  return options;
}

}  // namespace Latency
