#ifndef TESTS_PLUGINTEST_H
#define TESTS_PLUGINTEST_H

#include <string>
#include <vector>

#include "BusTest.h"

// Loads the shared object, as the host does, on the fake platform and the real bus, and unloads it
// after the test. Every test has a core of its own, since the library goes with it.
class PluginTest : public BusTest {
 protected:
  void SetUp() override;
  // Destroys and unloads what the test has not.
  void TearDown() override;

  bool Create() { return m_create(); }
  bool Destroy() { return m_destroy(); }
  // Creates the plug-in and turns the main loop until it is ready; then empties the trace.
  void CreateUntilReady();
  // Has the destructors of the shared object run. Nothing of it may be called afterwards.
  void Unload();

  // The summaries of the worker of the dispatcher.
  std::vector<std::string> WorkerSummaries();

  std::unique_ptr<BusClient> client;

 private:
  using EntryPoint = bool (*)();

  void* m_library = nullptr;
  EntryPoint m_create = nullptr;
  EntryPoint m_destroy = nullptr;
};

// Whole lines of the trace.
std::string CoreLine(int priority, const std::string& function, const std::string& message);
std::string ControlLine(int priority, const std::string& function, const std::string& message);
std::string ServerLine(int priority, const std::string& function, const std::string& message);
std::string WrapperLine(int priority, const std::string& function, const std::string& message);
std::string DispatcherLine(const std::string& function, const std::string& message);

using Lines = std::vector<std::string>;
Lines operator+(Lines first, const Lines& second);

// The parts of what a start and a stop write, on the thread of the host.
Lines RegisterPropertyLines(const std::string& call);
Lines UnregisterPropertyLines(const std::string& call);
Lines ControlCreateLines();
Lines ControlDestroyLines();
Lines ServerInitLines();
Lines ServerDeinitLines();

#endif  // TESTS_PLUGINTEST_H
