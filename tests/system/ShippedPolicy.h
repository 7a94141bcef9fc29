#ifndef TESTS_SYSTEM_SHIPPEDPOLICY_H
#define TESTS_SYSTEM_SHIPPEDPOLICY_H

#include <string>

// The bus policy as it ships, with the user that runs the tests in the place of the service's.
// Throws std::runtime_error.
std::string ShippedPolicyForThisUser();

#endif  // TESTS_SYSTEM_SHIPPEDPOLICY_H
