#ifndef HOST_SETTINGWATCH_H
#define HOST_SETTINGWATCH_H

#include <functional>

namespace QivoThing {

// What main-loop code calls when the setting has become 1, or anything else after that; null for
// nobody. It runs on the thread of GLib's default main context, which also sets it.
using SettingListener = std::function<void()>;
void ListenToSetting(SettingListener listener);

// True when the channel is up: this process has stored its setting, and the last value was 1. Any
// thread.
bool IsReady();

}  // namespace QivoThing

#endif  // HOST_SETTINGWATCH_H
