// exactly-once-campaign [--broker mosquitto|ejabberd] [--sets N] [--seed N]
//                       [--faults cut,restart,forget,end,kill]
//
// Sends numbered sets through the whole channel while things around it fail, and counts those that
// were lost, doubled or out of order. Ends with 0 when none was (a kill of the host may double each
// set once), with 1 when some were, with 2 when nothing is known.
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Campaign.h"
#include "EjabberdBroker.h"
#include "MosquittoBroker.h"

namespace {

using Fault = Campaign::Fault;

struct Options {
  std::size_t sets = 1000;
  std::uint32_t seed = 1;
  std::string broker = "mosquitto";
  std::vector<Fault> faults;  // empty: all that the broker can have
};

std::size_t numberIn(const std::string& text) {
  char* end = nullptr;
  const unsigned long number = std::strtoul(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0') throw std::invalid_argument("not a number: " + text);
  return number;
}

std::vector<Fault> faultsIn(const std::string& list) {
  constexpr std::array<Fault, 6> kAll{Fault::None,   Fault::Cut, Fault::Restart,
                                      Fault::Forget, Fault::End, Fault::Kill};
  std::vector<Fault> faults;
  std::istringstream names(list);
  for (std::string name; std::getline(names, name, ',');) {
    const std::size_t before = faults.size();
    for (const Fault fault : kAll) {
      if (name == Campaign::NameOf(fault)) faults.push_back(fault);
    }
    if (faults.size() == before) throw std::invalid_argument("no such fault: " + name);
  }
  if (faults.empty()) throw std::invalid_argument("no faults");
  return faults;
}

Options parse(const std::vector<std::string>& arguments) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); i += 2) {
    if (i + 1 == arguments.size()) throw std::invalid_argument(arguments[i] + " needs a value");
    const std::string& value = arguments[i + 1];
    if (arguments[i] == "--sets") {
      options.sets = numberIn(value);
    } else if (arguments[i] == "--seed") {
      options.seed = static_cast<std::uint32_t>(numberIn(value));
    } else if (arguments[i] == "--broker") {
      options.broker = value;
    } else if (arguments[i] == "--faults") {
      options.faults = faultsIn(value);
    } else {
      throw std::invalid_argument("no such option: " + arguments[i]);
    }
  }
  return options;
}

Campaign::MakeBroker brokerNamed(const std::string& name) {
  if (name == "mosquitto") {
    return [](const auto& /*folder*/) { return std::make_unique<MosquittoBroker>(); };
  }
  if (name == "ejabberd") {
    return [](const auto& folder) { return std::make_unique<EjabberdBroker>(folder); };
  }
  throw std::invalid_argument("no such broker: " + name);
}

Options complete(Options options) {
  if (!options.faults.empty()) return options;
  options.faults = {Fault::Cut, Fault::Forget, Fault::End, Fault::Kill};
  // The other one has its sessions in memory only.
  if (options.broker == "mosquitto") options.faults.push_back(Fault::Restart);
  return options;
}

void print(const char* name, const Campaign::Result& result) {
  const SetLedger::Counts& counts = result.counts;
  std::printf("%-8s %7zu %7zu %7zu %8zu %8zu %10zu %6zu %8zu %12zu\n", name, result.rounds,
              counts.sent, counts.events, counts.refused, counts.unheard, counts.forgotten,
              counts.lost, counts.doubled, counts.misordered);
}

// Prints what became of the sets; whether that is as it should be.
bool report(const Campaign& campaign) {
  std::printf("%-8s %7s %7s %7s %8s %8s %10s %6s %8s %12s\n", "fault", "rounds", "sets", "events",
              "refused", "unheard", "forgotten", "lost", "doubled", "out of order");
  Campaign::Result all;
  bool isRight = true;
  for (const auto& [fault, result] : campaign.Results()) {
    print(Campaign::NameOf(fault), result);
    all.rounds += result.rounds;
    all.counts += result.counts;
    const SetLedger::Counts& counts = result.counts;
    const bool mayDouble = fault == Fault::Kill && counts.repetitions == counts.doubled;
    isRight =
        isRight && counts.lost == 0 && counts.misordered == 0 && (counts.doubled == 0 || mayDouble);
  }
  print("all", all);
  return isRight;
}

}  // namespace

int main(int count, char** arguments) {
  constexpr int kWrong = 1;
  constexpr int kUnknown = 2;
  try {
    const Options options = complete(parse({arguments + 1, arguments + count}));
    Campaign campaign(brokerNamed(options.broker), options.seed);
    try {
      campaign.Run(options.sets, options.faults);
    } catch (const std::exception& e) {
      report(campaign);
      throw;
    }
    return report(campaign) ? EXIT_SUCCESS : kWrong;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "exactly-once-campaign: %s\n", e.what());
    return kUnknown;
  }
}
