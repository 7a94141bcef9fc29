// bare-gdbus NAME: a service with GDBus that only replies. Says "ready" once it has the name; ends
// at SIGTERM.
#include <gio/gio.h>
#include <glib-unix.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "BareService.h"

namespace {

gboolean quit(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: bare-gdbus NAME\n", stderr);
    return 2;
  }
  GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
  g_unix_signal_add(SIGTERM, &quit, loop);
  {
    const BareService service(argv[1], [] {
      std::puts("ready");
      std::fflush(stdout);
    });
    g_main_loop_run(loop);
  }
  g_main_loop_unref(loop);
  return EXIT_SUCCESS;
}
