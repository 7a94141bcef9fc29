#ifndef HOST_SPAREDESCRIPTORS_H
#define HOST_SPAREDESCRIPTORS_H

#include <vector>

namespace QivoThing {

// A few file descriptors that the process keeps for its end. A plug-in that gives up its bus name
// waits for the bus, and GLib ends the process when it gets no descriptor for such a wait.
//
// One thread at a time. Nobody can keep others from taking what was released, so there are some
// more than an end needs.
class SpareDescriptors {
 public:
  SpareDescriptors();
  ~SpareDescriptors();
  SpareDescriptors(const SpareDescriptors&) = delete;
  SpareDescriptors& operator=(const SpareDescriptors&) = delete;

  // Takes those that are missing, as far as there are any left.
  void Take() noexcept;
  // Frees all of them.
  void Release() noexcept;

 private:
  std::vector<int> m_descriptors;  // has room for all of them
};

}  // namespace QivoThing

#endif  // HOST_SPAREDESCRIPTORS_H
