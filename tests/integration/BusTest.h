#ifndef TESTS_BUSTEST_H
#define TESTS_BUSTEST_H

#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BusClient.h"
#include "FaultyGio.h"
#include "PlatformTest.h"
#include "PrivateBus.h"
#include "SharedConnection.h"

inline constexpr const char* kStatusKey = "memory/iot/thing/thing_status";
inline const std::string kStatus0 = "vconf_set_int(memory/iot/thing/thing_status, 0)";
inline const std::string kStatus1 = "vconf_set_int(memory/iot/thing/thing_status, 1)";

// A fixture on a fresh fake platform and on the message bus of this test process. The test's thread
// is the host's: it turns the main loop, in RunUntil and while it waits for replies.
class BusTest : public PlatformTest {
 protected:
  BusTest();
  // Has the bus run again, if the test has killed it.
  ~BusTest() override;

  static PrivateBus& Bus();
  std::unique_ptr<BusClient> NewClient() { return std::make_unique<BusClient>(Bus().Address()); }

  // Turns the main loop until `condition` holds; false after fake::kPatience.
  bool RunUntil(const std::function<bool()>& condition);
  // Runs everything that is ready in the main loop.
  void RunPending();
  Reply WaitFor(std::future<Reply> reply);
  Reply Call(BusClient& client, const std::string& method, GVariant* parameters = nullptr) {
    return WaitFor(client.Call(method, parameters));
  }
  // Turns the main loop until the client has received that many signals.
  std::vector<Signal> WaitForSignals(BusClient& client, std::size_t count);
  // Turns the main loop until the setting says that the bus name is owned.
  bool WaitUntilReady();

  // The host gives its own reference to the shared connection back.
  void ReleaseShared() { m_shared.reset(); }
  SharedConnection& Shared() { return *m_shared; }
  // As "%p" writes it.
  std::string SharedPointer();

  // The summaries of what this thread, or another, has logged and called.
  std::vector<std::string> SummariesOfThisThread();
  std::vector<std::string> SummariesOf(std::thread::id thread);

  FaultyGio& gio = FaultyGio::Get();

 private:
  std::optional<SharedConnection> m_shared;
};

#endif  // TESTS_BUSTEST_H
