#ifndef HOST_BUSCONNECTION_H
#define HOST_BUSCONNECTION_H

#include <gio/gio.h>

#include <functional>
#include <string>

#include "BackOff.h"
#include "GLibHandle.h"

namespace QivoThing {

// Keeps the process on the system bus: takes the connection that the process shares before anybody
// else does, sees to it that a bus that goes away does not end the process, and takes a new one
// when the bus is back, for as long as that may last.
//
// Made, used and destroyed on the thread of the main loop, which calls back. Nothing blocks it.
class BusConnection {
 public:
  using Callback = std::function<void()>;

  // Starts connecting. `onOpened` is called when the connection is there, `onClosed` when it has
  // closed, in turn. GIO gives out a closed connection for as long as anybody refers to it: when
  // `onClosed` returns, nobody but this object may. Neither may throw or destroy this object.
  BusConnection(Callback onOpened, Callback onClosed);
  // Neither callback comes any more. Gives the connection back without closing it.
  ~BusConnection();
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;

 private:
  void connect();
  // Connects after the next wait. `reason` is logged at the first of a row of waits.
  void connectLater(const std::string& reason);
  void opened(ConnectionPtr connection, const GError* error);
  void closed(const GError* error);
  void release();

  static void on_connected(GObject* source, GAsyncResult* result, gpointer userData);
  static void on_closed(GDBusConnection* connection, gboolean remotePeerVanished, GError* error,
                        gpointer userData);
  static gboolean on_wait_over(gpointer userData);

  Callback m_onOpened;
  Callback m_onClosed;
  BackOff m_backOff;
  bool m_waiting = false;        // and that has been logged
  guint m_timer = 0;             // 0 when there is none
  CancellablePtr m_cancellable;  // ends an attempt to connect together with this object
  ConnectionPtr m_connection;    // null when there is none
  gulong m_closedHandler = 0;    // of m_connection
};

}  // namespace QivoThing

#endif  // HOST_BUSCONNECTION_H
