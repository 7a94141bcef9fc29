#ifndef TESTS_SHAREDCONNECTION_H
#define TESTS_SHAREDCONNECTION_H

#include <gio/gio.h>

#include <memory>
#include <string>

// A reference to the connection to the system bus that this process shares, as a host holds it: the
// bus may go without ending the process. A connection that has died is renewed. Made on the thread
// of the main loop.
class SharedConnection {
 public:
  // Throws std::runtime_error when the bus cannot be reached.
  SharedConnection();

  GDBusConnection* Get() const { return m_connection.get(); }
  std::string UniqueName() const;

 private:
  std::unique_ptr<GDBusConnection, void (*)(gpointer)> m_connection;
};

#endif  // TESTS_SHAREDCONNECTION_H
