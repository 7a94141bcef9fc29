#ifndef TESTS_SOAK_APPMODEL_H
#define TESTS_SOAK_APPMODEL_H

#include <optional>
#include <string>

#include "History.h"
#include "SetLog.h"

namespace Soak {

// What the channel must know of one application. Its owner changes it; any thread reads.
struct AppModel {
  // Its data; nothing when it is not registered.
  using State = std::optional<std::string>;

  AppModel(std::string itsName, bool isAllowed) : name(std::move(itsName)), allowed(isAllowed) {}

  // Whether an answer may say this of the application, to who has asked since the mark.
  bool MayBe(const State& seen, History<State>::Mark mark) const;

  const std::string name;
  const bool allowed;  // to register
  History<State> state{std::nullopt};
  SetLog sets;
};

// What it must know of the thing. The requesters change it, each one value.
struct ThingModel {
  History<bool> signedIn{false};
  History<std::string> signupInfo{std::string()};  // as applications are given it
};

}  // namespace Soak

#endif  // TESTS_SOAK_APPMODEL_H
