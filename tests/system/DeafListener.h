#ifndef TESTS_SYSTEM_DEAFLISTENER_H
#define TESTS_SYSTEM_DEAFLISTENER_H

#include <string>

// Somebody on a message bus who listens to the channel's signals and never reads one. It leaves
// with the object. Throws std::runtime_error.
class DeafListener {
 public:
  // An address as PrivateBus has it: "unix:path=…".
  explicit DeafListener(const std::string& address);
  ~DeafListener();
  DeafListener(const DeafListener&) = delete;
  DeafListener& operator=(const DeafListener&) = delete;

 private:
  void join(const std::string& path);
  void send(const std::string& bytes) const;
  void call(const char* method, const char* argument, unsigned serial) const;

  int m_socket = -1;
};

#endif  // TESTS_SYSTEM_DEAFLISTENER_H
