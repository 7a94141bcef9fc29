#ifndef HOST_SETTINGWATCH_H
#define HOST_SETTINGWATCH_H

namespace QivoThing {

// True when the channel is up: this process has stored its setting, and the last value was 1. Any
// thread.
bool IsReady();

}  // namespace QivoThing

#endif  // HOST_SETTINGWATCH_H
