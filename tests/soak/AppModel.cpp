#include "AppModel.h"

#include <algorithm>
#include <vector>

namespace Soak {

bool AppModel::MayBe(const State& seen, History<State>::Mark mark) const {
  const std::vector<State> states = state.Since(mark);
  if (std::find(states.begin(), states.end(), seen) != states.end()) return true;
  if (seen != State(std::string())) return false;
  // The channel looks whether it is registered, and then for its data: in between it may leave.
  const auto registered =
      std::find_if(states.begin(), states.end(), [](const State& one) { return one.has_value(); });
  return std::find(registered, states.end(), State()) != states.end();
}

}  // namespace Soak
