// The command line of the host.
#include <fcntl.h>
#include <glib.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <exception>
#include <iterator>
#include <string>
#include <vector>

#include "GLibHandle.h"
#include "Host.h"
#include "JournalStream.h"
#include "WriteInTime.h"

namespace {

using QivoThing::GErrorPtr;
using QivoThing::Host;
using QivoThing::OptionContextPtr;
using QivoThing::StringListPtr;

constexpr int kExitSuccess = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

int fail(int status, const char* message) {
  const char* const priority = IsJournalStream(STDERR_FILENO) ? "<3>" : "";
  WriteInTime(STDERR_FILENO, priority + ("qivo-thing: " + std::string(message)) + "\n");
  return status;
}

struct Arguments {
  gboolean version = FALSE;
  gboolean check = FALSE;
  std::vector<std::string> plugins;
  std::string error;  // empty when the command line is right
};

// Ends the process when only the help is wanted.
Arguments parse(int argc, char** argv) {
  Arguments arguments;
  gchar** rawFiles = nullptr;
  const GOptionEntry entries[] = {
      {"version", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &arguments.version,
       "Print the version and exit", nullptr},
      {"check", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &arguments.check,
       "Check the settings in the environment and exit", nullptr},
      {G_OPTION_REMAINING, 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME_ARRAY, &rawFiles, nullptr,
       "PLUGIN.so…"},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr}};
  const OptionContextPtr context(g_option_context_new(nullptr));
  g_option_context_set_summary(
      context.get(),
      "Runs service plug-ins on the system bus until SIGINT or SIGTERM. They are created in the\n"
      "order given whenever the bus is up, and destroyed in reverse.");
  g_option_context_set_description(context.get(),
                                   "Exit status: 0 after a signal, 1 when a setting is wrong, a "
                                   "plug-in cannot be loaded or\ncreated, or the channel does not "
                                   "come up, 2 for a wrong command line.");
  g_option_context_add_main_entries(context.get(), entries, nullptr);

  GError* rawError = nullptr;
  const gboolean parsed = g_option_context_parse(context.get(), &argc, &argv, &rawError);
  const GErrorPtr error(rawError);
  const StringListPtr files(rawFiles);
  if (parsed == FALSE) {
    arguments.error = error->message;
    return arguments;
  }
  for (gchar** file = files.get(); file != nullptr && *file != nullptr; ++file) {
    arguments.plugins.emplace_back(*file);
  }
  if (arguments.version == FALSE && arguments.plugins.empty()) {
    arguments.error = "no plug-in is given; try --help";
  }
  return arguments;
}

// Whoever starts the host may have closed its standard streams. A socket would then get such a
// descriptor, and its peer would get the log.
void openClosedStreams() {
  int descriptor = -1;
  do {
    // open() gives the lowest free descriptor.
    descriptor = open("/dev/null", O_RDWR);
  } while (descriptor >= STDIN_FILENO && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) close(descriptor);
}

int run(int argc, char** argv) {
  const Arguments arguments = parse(argc, argv);
  if (!arguments.error.empty()) return fail(kExitUsage, arguments.error.c_str());
  if (arguments.version != FALSE) {
    static_cast<void>(std::puts("qivo-thing " QIVO_THING_VERSION));
    return kExitSuccess;
  }
  Host host(arguments.plugins);
  if (arguments.check != FALSE) {
    const std::string settings = host.CheckSettings();
    static_cast<void>(std::puts(settings.empty() ? "nobody judges the settings here"
                                                 : ("right: " + settings).c_str()));
    return kExitSuccess;
  }
  host.Run();
  return kExitSuccess;
}

}  // namespace

int main(int argc, char** argv) {
  openClosedStreams();
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread yet
  static_cast<void>(std::setlocale(LC_ALL, ""));
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    return fail(kExitFailure, e.what());
  }
}
