#ifndef PLATFORM_VCONF_SETTINGSFOLDER_H
#define PLATFORM_VCONF_SETTINGSFOLDER_H

#include <optional>
#include <string>
#include <string_view>
#include <utility>

// The folder that keeps each setting in a file of its own, at the path that is the setting's key.
// Several threads and processes may write at the same time: a reader always sees a whole value.
class SettingsFolder {
 public:
  explicit SettingsFolder(std::string path) : m_path(std::move(path)) {}

  // VCONF_DIR, or "vconf" in the user's runtime directory. Reads the environment.
  static SettingsFolder FromEnvironment();

  // Replaces the key's file by one that holds the text. Folders are created as needed, for their
  // owner alone. False when the key is not a relative path of plain names, when a part of it is a
  // symbolic link (which could lead out of the folder), or when the system refuses; the setting
  // then keeps its value and no temporary file stays.
  bool Write(std::string_view key, std::string_view text) const;

  // The last string written; nothing when the key was never written, is refused as above, or cannot
  // be read. Creates nothing.
  std::optional<std::string> Read(std::string_view key) const;

 private:
  std::string m_path;
};

#endif  // PLATFORM_VCONF_SETTINGSFOLDER_H
