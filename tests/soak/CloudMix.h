#ifndef TESTS_SOAK_CLOUDMIX_H
#define TESTS_SOAK_CLOUDMIX_H

#include <json/json.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "AppModel.h"
#include "CloudRequester.h"
#include "Tally.h"

namespace Soak {

// What one requester of the cloud asks for, in a random order, some requests at once, with every
// answer checked. One thread at a time uses it.
class CloudMix {
 public:
  // All that is referred to outlives it. The requester 0 signs the thing in and out, and 1 gives it
  // sign-up information, so that each has one who changes it.
  CloudMix(int port, const std::string& thing, int index, std::deque<AppModel>& apps,
           ThingModel& thingModel, std::uint64_t seed, Tally& tally);

  // Goes on until told to stop, and until all is answered. Never throws.
  void Run(const std::atomic<bool>& stop);
  // How often it has signed the thing in or out since it was asked last.
  unsigned TakeSignins();

 private:
  enum class Kind { Get, Set, ThingGet, SigninSet, SignupSet, Invalid, Hopeless };

  struct AskedApp {
    AppModel* app;
    History<AppModel::State>::Mark mark;
  };
  struct Request {
    Kind kind = Kind::Get;
    CloudRequester::Number number = 0;
    std::vector<AskedApp> apps;
    bool asksForNobody = false;
    bool cancelled = false;
  };

  void step();
  Request sendAny(bool thingMayChange);
  Request sendGet();
  Request sendSet(bool cancelled);
  Request sendHopeless();
  Request sendSignin();
  Request sendSignup();
  Request sendPlain(Kind kind, const std::string& operation, const std::string& payload);
  void finish(const Request& request);
  // What is wrong with the answer; empty when nothing is.
  std::string check(const Request& request, const Json::Value& answer);
  static std::string checkApps(const Request& request, const Json::Value& answer);
  void endSets(const Request& request, const Json::Value* answer);

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
