#ifndef HOST_PLUGIN_H
#define HOST_PLUGIN_H

#include <memory>
#include <string>

namespace QivoThing {

// A loaded plug-in: a shared object with the two entry points CreatePlugin and DestroyPlugin, which
// take nothing and return a bool. Used on the thread of the main loop.
class Plugin {
 public:
  // Loads the file. Throws std::runtime_error with one line for the user when it is missing, not a
  // shared object, or lacks an entry point.
  explicit Plugin(const std::string& file);
  // Destroys the plug-in if it is created, then unloads the file.
  ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  // Asks the device service that the plug-in uses for its settings. What they mean, in one line;
  // empty when it does not judge them. Throws the same when one is wrong.
  std::string CheckSettings() const;
  // A function of a library that the plug-in is linked with, or of its own; null when there is
  // none.
  void* FindInLibraries(const char* name) const;
  // Throws the same when the plug-in returns false or throws.
  void Create();
  // Does nothing when the plug-in is not created.
  void Destroy() noexcept;

 private:
  struct Unload {
    void operator()(void* library) const noexcept;
  };
  using EntryPoint = bool (*)();

  EntryPoint find(const char* name) const;

  std::string m_file;
  std::unique_ptr<void, Unload> m_library;
  EntryPoint m_create = nullptr;
  EntryPoint m_destroy = nullptr;
  bool m_created = false;
};

}  // namespace QivoThing

#endif  // HOST_PLUGIN_H
