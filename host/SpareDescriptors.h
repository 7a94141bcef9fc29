#ifndef HOST_SPAREDESCRIPTORS_H
#define HOST_SPAREDESCRIPTORS_H

#include <array>
#include <cstddef>

namespace QivoThing {

// File descriptors in reserve. GLib ends the process when it gets none for a connection to the bus,
// or for a wait for the bus, as a plug-in makes when it releases its bus name.
//
// One thread at a time. Other threads may take what was released, so the reserve is larger than one
// wait or one connection needs.
class SpareDescriptors {
 public:
  SpareDescriptors() { Take(); }
  ~SpareDescriptors() { Release(); }
  SpareDescriptors(const SpareDescriptors&) = delete;
  SpareDescriptors& operator=(const SpareDescriptors&) = delete;

  // Takes those that are missing, as far as the system has any.
  void Take() noexcept;
  void Release() noexcept;
  bool IsComplete() const { return m_count == m_descriptors.size(); }

 private:
  std::array<int, 8> m_descriptors{};
  std::size_t m_count = 0;  // how many of them are open
};

}  // namespace QivoThing

#endif  // HOST_SPAREDESCRIPTORS_H
