#ifndef TESTS_SOAK_CLOUDMIX_H
#define TESTS_SOAK_CLOUDMIX_H

#include <json/json.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "CloudRequester.h"
#include "Model.h"
#include "Tally.h"

namespace Soak {

// What one requester of the cloud asks for, in a random order, some requests at once, with every
// answer checked. One thread at a time uses it. Failures are thrown as std::runtime_error.
class CloudMix {
 public:
  // All that is referred to outlives it. The requester 0 signs the thing in and out, and 1 gives it
  // sign-up information, so that each has one who changes it.
  CloudMix(int port, const std::string& thing, int index, std::deque<AppModel>& apps,
           ThingModel& thingModel, std::uint64_t seed, Tally& tally);

  // Goes on until told to stop, and until all is answered.
  void Run(const std::atomic<bool>& stop);
  // How often it has signed the thing in or out since it was asked last.
  unsigned TakeSignins();

 private:
  struct AskedApp {
    AppModel* app;
    History<AppModel::State>::Mark mark;
  };
  struct Request {
    CloudRequester::Number number = 0;
    std::vector<AskedApp> apps{};
    bool asksForNobody = false;
    bool isSet = false;  // whose events the applications get
    bool isCancelled = false;
    bool isHopeless = false;  // nobody answers it, unless the application is not there
    // Without applications: the answer, null for any error, and what to do when it is there.
    Json::Value answer{};
    std::function<void()> onAnswer{};
  };

  void step();
  Request sendAny(bool thingMayChange);
  Request sendGet();
  Request sendSet(bool isCancelled);
  Request sendHopeless();
  Request sendSignin();
  Request sendSignup();
  void finish(const Request& request);
  // What is wrong with the answer; empty when nothing is.
  static std::string check(const Request& request, const Json::Value& answer);

  unsigned random(unsigned below);
  std::vector<AskedApp> someApps();
  SetLog::Id idOf(const Request& request) const;

  const int m_index;
  std::deque<AppModel>& m_apps;
  ThingModel& m_thing;
  Tally& m_tally;
  std::mt19937_64 m_random;
  CloudRequester m_requester;
  unsigned m_signins = 0;
};

}  // namespace Soak

#endif  // TESTS_SOAK_CLOUDMIX_H
