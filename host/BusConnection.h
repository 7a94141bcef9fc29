#ifndef HOST_BUSCONNECTION_H
#define HOST_BUSCONNECTION_H

#include <gio/gio.h>

#include <functional>
#include <string>

#include "DoublingWait.h"
#include "GLibHandle.h"

namespace QivoThing {

// Keeps the process connected to the system bus. It takes the process's shared connection before
// anybody else does, switches off that the loss of the bus ends the process, and connects again
// when the bus is back, however long that takes. File descriptors that come with calls are closed.
//
// Created, used and destroyed on the thread of the main loop, which calls back. It never blocks.
class BusConnection {
 public:
  using OpenedCallback = std::function<void(GDBusConnection* connection)>;
  using Callback = std::function<void()>;

  // Starts connecting. `onOpened` is called when the connection is open, `onClosed` when it has
  // closed, in turn. GIO returns a closed connection as long as anybody refers to it, so nobody
  // else may when `onClosed` returns. Neither may throw or destroy this object.
  BusConnection(OpenedCallback onOpened, Callback onClosed);
  // Calls back no more. Drops its reference to the connection and does not close it.
  ~BusConnection();
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;

 private:
  void connect();
  // Connects after the next wait. Logs `reason` at the first of several waits.
  void connectLater(const std::string& reason);
  void opened(ConnectionPtr connection, const GError* error);
  void closed(const GError* error);
  void release();

  static void on_connected(GObject* source, GAsyncResult* result, gpointer userData);
  static void on_closed(GDBusConnection* connection, gboolean remotePeerVanished, GError* error,
                        gpointer userData);
  static gboolean on_wait_over(gpointer userData);

  OpenedCallback m_onOpened;
  Callback m_onClosed;
  DoublingWait m_wait;
  bool m_waiting = false;        // and that has been logged
  guint m_timer = 0;             // 0 when there is none
  CancellablePtr m_cancellable;  // ends an attempt to connect together with this object
  ConnectionPtr m_connection;    // null when there is none
  gulong m_closedHandler = 0;    // of m_connection
};

}  // namespace QivoThing

#endif  // HOST_BUSCONNECTION_H
