#include "ShippedPolicy.h"

#include <unistd.h>

#include <fstream>
#include <iterator>
#include <stdexcept>

std::string ShippedPolicyForThisUser() {
  std::ifstream file(ADC_POLICY_FILE);
  std::string text((std::istreambuf_iterator<char>(file)), {});
  const std::string user = "user=\"qivo-thing\"";
  const auto at = text.find(user);
  if (at == std::string::npos) throw std::runtime_error("the policy does not name the user");
  return text.replace(at, user.size(), "user=\"" + std::to_string(getuid()) + "\"");
}
