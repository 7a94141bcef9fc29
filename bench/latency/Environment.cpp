#include "Environment.h"

#include <cstdlib>
#include <stdexcept>

namespace Latency {

std::string Environment(const char* variable) {
  const char* const value = std::getenv(variable);
  Require(value != nullptr, std::string(variable) + " is not set: start this with ./dev run --");
  return value;
}

void Require(bool done, const std::string& whatIsWrong) {
  if (!done) throw std::runtime_error(whatIsWrong);
}

}  // namespace Latency
