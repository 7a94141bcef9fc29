#ifndef TESTS_PLUGINTEST_H
#define TESTS_PLUGINTEST_H

#include <functional>
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

  // What the worker of the dispatcher has written.
  Lines WrittenByTheWorker();
  // Until that many requests of this trace are answered.
  bool WaitForAnswers(std::size_t count) {
    return platform.WaitUntil([this, count] { return platform.Responses().size() == count; });
  }
  // Until that many workers, all that there were, have ended.
  bool WaitForWorkers(std::size_t count) {
    return platform.WaitUntil(
        [this, count] { return platform.CountLogs("Finished thread running") == count; });
  }

  // The following three allocate nothing with `new` themselves: FaultyNew counts what the plug-in
  // does.

  // An application's call on the shared connection: the value of the reply, or "an error".
  std::string CallUncounted(const char* method, const std::vector<std::string>& arguments = {});
  // Delivers a request, and returns it when its handler has returned or thrown.
  void* Request(bool isSet, const std::vector<fake::Property>& properties);
  void Cancel(void* request);

 private:
  // Delivers, and waits until this handler has ended once more.
  void* WaitForHandler(const char* handler, const std::function<void*()>& deliver);

  using EntryPoint = bool (*)();

  void* m_library = nullptr;
  EntryPoint m_create = nullptr;
  EntryPoint m_destroy = nullptr;
};

#endif  // TESTS_PLUGINTEST_H
