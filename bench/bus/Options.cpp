#include "Options.h"

#include <charconv>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace {

std::size_t parseCount(const std::string& option, std::string_view text) {
  std::size_t count = 0;
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  if (error != std::errc() || rest != text.data() + text.size() || count == 0) {
    throw std::invalid_argument(option + " wants a number from 1 on");
  }
  return count;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c == separator) {
      parts.emplace_back();
    } else {
      parts.back().push_back(c);
    }
  }
  return parts;
}

Destination parseDestination(const std::string& text) {
  std::vector<std::string> parts = split(text, '|');
  if (parts.size() < 3 || parts.size() > 4) {
    throw std::invalid_argument("a destination is LABEL|ADDRESS|NAME[|APP,...]: " + text);
  }
  return {parts[0], parts[1], parts[2], split(parts.size() == 4 ? parts[3] : "qz", ',')};
}

}  // namespace

Options Options::Parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option.rfind("--", 0) != 0) {
      options.destinations.push_back(parseDestination(option));
      continue;
    }
    if (++i == argc) throw std::invalid_argument(option + " wants a value");
    const std::string value = argv[i];
    if (option == "--size") {
      options.size = parseCount(option, value);
    } else if (option == "--in-flight") {
      options.inFlight = parseCount(option, value);
    } else if (option == "--calls") {
      options.calls = parseCount(option, value);
    } else if (option == "--pairs") {
      options.pairs = parseCount(option, value);
    } else if (option == "--connections") {
      options.connections = parseCount(option, value);
    } else {
      throw std::invalid_argument("no option named " + option);
    }
  }
  if (options.destinations.empty()) {
    throw std::invalid_argument(
        "usage: bus-driver [--size BYTES] [--in-flight N] [--calls N] [--pairs N] "
        "[--connections N] LABEL|ADDRESS|NAME[|APP,...]...");
  }
  if (options.inFlight > 1 && options.connections > 1) {
    throw std::invalid_argument("one of --in-flight and --connections");
  }
  return options;
}
