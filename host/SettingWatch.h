#ifndef HOST_SETTINGWATCH_H
#define HOST_SETTINGWATCH_H

namespace QivoThing {

// True while the setting that says whether the channel is up is 1, as far as this process has
// stored it. Any thread.
bool IsReady();

}  // namespace QivoThing

#endif  // HOST_SETTINGWATCH_H
