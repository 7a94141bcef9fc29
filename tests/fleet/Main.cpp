// fleet [N] [--scenario NAME[,NAME...]] [--seconds N] [--rate N] [--workers N] [--seed N] [--tls]
//       [--results FOLDER]
//
// N real televisions (1000 by default), each a message bus and a host with the plug-in, one broker,
// an application on each television and some cloud workers: all processes, on loopback and private
// sockets. They go through the scenarios named, or all of them; "start" always comes first.
//
// Ends with 0 when every promise was kept, with 1 when some were not, with 2 when nothing is known,
// and with 130 when a signal ended it. Whatever ends it, even SIGKILL: all processes end with it,
// and the temporary folder goes.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Fleet.h"
#include "Report.h"
#include "Scenarios.h"
#include "TemporaryFolder.h"

namespace {

constexpr int kBroken = 1;
constexpr int kUnknown = 2;
constexpr int kInterrupted = 130;

struct Arguments {
  std::string command;
  std::size_t televisions = 1000;
  std::size_t workers = 4;
  bool usesTls = false;
  std::filesystem::path results = "build/fleet";
  std::vector<std::string> scenarios;
  Fleet::Scenarios::Settings settings;
};

double numberIn(const std::string& option, const std::string& text, double least, double most) {
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(number >= least && number <= most)) {
    throw std::invalid_argument(option + " is from " + std::to_string(std::lround(least)) + " to " +
                                std::to_string(std::lround(most)) + ", and not '" + text + "'");
  }
  return number;
}

std::size_t countIn(const std::string& option, const std::string& text, double least, double most) {
  const double number = numberIn(option, text, least, most);
  if (number != std::floor(number)) throw std::invalid_argument(option + " is a whole number");
  return static_cast<std::size_t>(number);
}

std::vector<std::string> scenariosIn(const std::string& list) {
  const std::vector<std::string>& all = Fleet::Scenarios::Names();
  std::vector<std::string> scenarios{"start"};
  std::istringstream names(list);
  for (std::string name; std::getline(names, name, ',');) {
    if (std::find(all.begin(), all.end(), name) == all.end()) {
      std::string known;
      for (const std::string& other : all) known += (known.empty() ? "" : ", ") + other;
      throw std::invalid_argument("no scenario named '" + name + "' (" + known + ")");
    }
    if (name != "start") scenarios.push_back(name);
  }
  return scenarios;
}

Arguments parse(const std::vector<std::string>& words) {
  constexpr double kMostTelevisions = 10'000;
  constexpr double kMostSeconds = 86'400;
  Arguments arguments;
  arguments.command = "./dev fleet";
  arguments.scenarios = Fleet::Scenarios::Names();
  bool hasNumber = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (word != "--results") arguments.command += " " + word;
    if (word.rfind("--", 0) != 0) {
      if (std::exchange(hasNumber, true)) throw std::invalid_argument("two numbers of televisions");
      arguments.televisions = countIn("the number of televisions", word, 1, kMostTelevisions);
      continue;
    }
    if (word == "--tls") {
      arguments.usesTls = true;
      continue;
    }
    const std::vector<std::string> known{"--scenario", "--seconds", "--rate",
                                         "--workers",  "--seed",    "--results"};
    if (std::find(known.begin(), known.end(), word) == known.end()) {
      throw std::invalid_argument("no option '" + word + "'");
    }
    if (i + 1 == words.size()) throw std::invalid_argument(word + " needs a value");
    const std::string& value = words[++i];
    if (word != "--results") arguments.command += " " + value;
    if (word == "--scenario") arguments.scenarios = scenariosIn(value);
    if (word == "--seconds") arguments.settings.seconds = numberIn(word, value, 1, kMostSeconds);
    if (word == "--rate") arguments.settings.rate = numberIn(word, value, 0, 1000);
    if (word == "--workers") arguments.workers = countIn(word, value, 2, 100);
    if (word == "--seed") {
      arguments.settings.seed = static_cast<std::uint32_t>(countIn(word, value, 0, 4'294'967'295));
    }
    if (word == "--results") arguments.results = value;
  }
  return arguments;
}

// For this process and all that it starts.
void setLimits() {
  // A page of 2 MiB that the kernel gives to one process would be taken for its cost.
  prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);
  // The broker and the helpers have a connection for each television.
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

// Takes the folder as long as the process lives; two runs would mix their files.
void takeResults(const std::filesystem::path& folder) {
  std::filesystem::create_directories(folder);
  const int descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), folder);
  if (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
    throw std::runtime_error("another fleet writes to " + folder.string());
  }
}

int run(const Arguments& arguments, const std::filesystem::path& folder) {
  takeResults(arguments.results);
  Fleet::Report report({arguments.command, arguments.televisions, arguments.workers,
                        arguments.settings.rate, arguments.settings.seed, arguments.usesTls,
                        arguments.scenarios == Fleet::Scenarios::Names()});
  std::string failure;
  int status = EXIT_SUCCESS;
  try {
    Fleet::Fleet::Options options;
    options.televisions = arguments.televisions;
    options.workers = arguments.workers;
    options.usesTls = arguments.usesTls;
    options.folder = folder;
    options.log = arguments.results / "log";
    options.helpers = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    options.host = ADC_HOST_FILE;
    options.plugin = ADC_PLUGIN_FILE;
    Fleet::Fleet fleet(options);
    fleet.onSecond = [&report](const Fleet::Fleet::Second& second) { report.Show(second); };
    Fleet::Scenarios scenarios(fleet, arguments.settings);
    for (const std::string& name : arguments.scenarios) {
      report.Show(scenarios.Run(name));
      if (name == "start" && !report.AreAllKept()) break;  // the others need all of them
    }
  } catch (const Fleet::Interrupted& interruption) {
    failure = interruption.what();
    status = kInterrupted;
  } catch (const std::exception& error) {
    failure = error.what();
    status = kUnknown;
  }
  report.PrintTable(failure);
  report.Write(arguments.results, failure);
  if (!failure.empty()) std::fprintf(stderr, "fleet: %s\n", failure.c_str());
  if (status == EXIT_SUCCESS && !report.AreAllKept()) status = kBroken;
  return status;
}

int guard(pid_t runner) {
  int status = 0;
  while (waitpid(runner, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  std::fprintf(stderr, "fleet: signal %d has ended the runner\n", WTERMSIG(status));
  return kUnknown;
}

volatile std::sig_atomic_t runnerToTell = 0;

}  // namespace

int main(int count, char** words) {
  try {
    const Arguments arguments = parse({words + 1, words + count});
    setLimits();
    // This process outlives the runner, whatever ends that, and removes the folder; and the runner
    // ends with this process. All others end with the runner.
    const TemporaryFolder folder;
    const pid_t guardian = getpid();
    const pid_t runner = fork();
    if (runner < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (runner == 0) {
      Fleet::InstallInterrupts();
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      setenv("TMPDIR", folder.Path().c_str(), 1);  // the broker's folder, too
      if (getppid() != guardian) std::_Exit(kUnknown);
      int status = kUnknown;
      try {
        status = run(arguments, folder.Path());
      } catch (const std::exception& error) {
        std::fprintf(stderr, "fleet: %s\n", error.what());
      }
      static_cast<void>(std::fflush(nullptr));
      if (getppid() != guardian) {
        std::error_code ignored;
        std::filesystem::remove_all(folder.Path(), ignored);
      }
      std::_Exit(status);
    }
    runnerToTell = runner;
    struct sigaction action {};
    action.sa_handler = [](int signal) { kill(runnerToTell, signal); };
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
    return guard(runner);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "fleet: %s\n", error.what());
    return kUnknown;
  }
}
