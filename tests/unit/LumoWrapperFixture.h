#ifndef TESTS_LUMOWRAPPERFIXTURE_H
#define TESTS_LUMOWRAPPERFIXTURE_H

#include "LumoWrapper.h"

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "Gate.h"
#include "PlatformTest.h"

namespace ThingCommon {

using fake::Property;
using Adaptor = JsonValueAdaptor;

// Long enough for a thread to get somewhere that it must not get to. A slow machine only makes the
// check that uses it weaker.
constexpr std::chrono::milliseconds kGlimpse(50);

inline ExpectedLog Line(int priority, const std::string& function, const std::string& message,
                        int line, const std::string& format = "") {
  return {priority, "THING_COMMON", "LumoWrapper.cpp", function, message, line, format};
}

inline ExpectedLog Entered(const std::string& function, int line) {
  return Line(4, function, "> Entered\n", line);
}

inline ExpectedLog Left(const std::string& function, int line) {
  return Line(4, function, "> Left\n", line);
}

inline Adaptor Object(const std::string& name, const Json::Value& value) {
  Json::Value object(Json::objectValue);
  object[name] = value;
  return object;
}

// Where a handler stops until the test ends that.
class Pause {
 public:
  void Here() {
    m_reached.Open();
    EXPECT_TRUE(m_ended.Wait());
  }
  bool WaitUntilReached() const { return m_reached.Wait(); }
  void End() { m_ended.Open(); }

 private:
  Gate m_reached;
  Gate m_ended;
};

class LumoWrapperFixture : public PlatformTest {
 protected:
  void TearDown() override {
    // By the end of a test nothing that its hooks refer to need be there.
    for (const char* operation : {"lumo_service_create", "lumo_service_destroy"}) {
      platform.OnCall(operation, {});
    }
    wrapper->Destroy();
    platform.Drain();
    wrapper.reset();
    PlatformTest::TearDown();
  }

  static _ServiceInfo Info(const std::string& name = "service") {
    _ServiceInfo info;
    info.name = name;
    info.description = "a service";
    return info;
  }

  void CreateQuietly(const _ServiceInfo& info = Info()) {
    ASSERT_TRUE(wrapper->Create(info));
    platform.ClearTrace();
  }

  // Creates a service whose cancel handler is `body`, and returns when that runs.
  void RunInHandler(const std::string& name, const std::function<void()>& body) {
    const auto started = std::make_shared<Gate>();
    _ServiceInfo info = Info(name);
    info.cancel_handler = [started, body](void*) {
      started->Open();
      body();
    };
    ASSERT_TRUE(wrapper->Create(info));
    platform.DeliverCancel(nullptr);
    ASSERT_TRUE(started->Wait());
  }

  bool WaitForResponses(std::size_t count) {
    return platform.WaitUntil([&] { return platform.Responses().size() >= count; });
  }

  std::unique_ptr<LumoWrapper> wrapper = std::make_unique<LumoWrapper>();
};

}  // namespace ThingCommon

#endif  // TESTS_LUMOWRAPPERFIXTURE_H
