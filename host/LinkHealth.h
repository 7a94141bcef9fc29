#ifndef HOST_LINKHEALTH_H
#define HOST_LINKHEALTH_H

#include <cstdint>
#include <string>

#include "lumo_health.h"

namespace QivoThing {

// The state of the channel in one line for the operator, such as
// "online at mqtts://host:8883 as tv, 3 applications, 2 requests waiting". `settings` is what the
// device service says of its settings, `ownProperties` how many properties the plug-ins themselves
// have: the others are the applications'.
std::string Describe(const lumo_health& health, const std::string& settings,
                     std::uint32_t ownProperties);

}  // namespace QivoThing

#endif  // HOST_LINKHEALTH_H
