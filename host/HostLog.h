#ifndef HOST_HOSTLOG_H
#define HOST_HOSTLOG_H

#include "Log.h"

namespace QivoThing {

inline constexpr const char* LOG_TAG_HOST = "QIVO_THING";

}  // namespace QivoThing

#endif  // HOST_HOSTLOG_H
