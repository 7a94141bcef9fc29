#ifndef HOST_HOSTLOG_H
#define HOST_HOSTLOG_H

#include "Log.h"

namespace QivoThing {

using ThingCommon::LOG_PRIORITY_ERROR;
using ThingCommon::LOG_PRIORITY_INFO;

inline constexpr const char* LOG_TAG_HOST = "QIVO_THING";

}  // namespace QivoThing

#endif  // HOST_HOSTLOG_H
