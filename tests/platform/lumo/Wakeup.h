#ifndef TESTS_PLATFORM_LUMO_WAKEUP_H
#define TESTS_PLATFORM_LUMO_WAKEUP_H

namespace Lumo {

// Ends the poll() of another thread. Owns its descriptor.
class Wakeup {
 public:
  Wakeup();  // throws std::system_error
  ~Wakeup();
  Wakeup(const Wakeup&) = delete;
  Wakeup& operator=(const Wakeup&) = delete;

  // Readable after a Signal, until Clear.
  int Descriptor() const { return m_descriptor; }

  void Signal() noexcept;  // any thread
  void Clear() noexcept;

 private:
  int m_descriptor;
};

}  // namespace Lumo

#endif  // TESTS_PLATFORM_LUMO_WAKEUP_H
