/* With the proxy that gdbus-codegen makes: see proxies_test.py. */
#include <stdio.h>

#include "proxy.h"

static const char* self;
static GMainLoop* loop;

/* Ends the program when the call has failed. */
static void require(gboolean succeeded, const char* method, GError* error) {
  if (succeeded) return;
  fprintf(stderr, "%s: %s\n", method, error->message);
  exit(1);
}

static void ask_connection(ChannelService* proxy) {
  gboolean connected = FALSE;
  GError* error = NULL;
  require(channel_service_call_get_cloud_connection_sync(proxy, &connected, NULL, &error),
          "get_cloud_connection", error);
  printf("get_cloud_connection %s\n", connected ? "true" : "false");
}

static void ask_information(ChannelService* proxy) {
  gchar* info = NULL;
  GError* error = NULL;
  require(channel_service_call_get_thing_information_sync(proxy, &info, NULL, &error),
          "get_thing_information", error);
  printf("get_thing_information %s\n", g_strstrip(info));
  g_free(info);
}

static void on_connection(ChannelService* proxy, gboolean connected, gpointer data) {
  (void)data;
  printf("cloud_connection_changed %s\n", connected ? "true" : "false");
  ask_connection(proxy);
  ask_information(proxy);
}

static void on_event(ChannelService* proxy, const gchar* app_name, const gchar* text,
                     gpointer data) {
  gint result = -1;
  GError* error = NULL;
  (void)data;
  if (g_strcmp0(app_name, self) != 0) return;
  printf("send_event %s\n", text);
  if (g_strcmp0(text, "end") == 0) {
    g_main_loop_quit(loop);
    return;
  }
  require(channel_service_call_send_data_sync(proxy, self, text, &result, NULL, &error),
          "send_data", error);
  printf("send_data %d\n", result);
}

static void register_app(ChannelService* proxy) {
  gint result = -1;
  GError* error = NULL;
  require(channel_service_call_register_app_sync(proxy, self, &result, NULL, &error),
          "register_app", error);
  printf("register_app %d\n", result);
}

static void on_ready(ChannelService* proxy, gpointer data) {
  (void)data;
  printf("dbus_server_ready\n");
  register_app(proxy);
}

int main(int argc, char** argv) {
  gint result = -1;
  GError* error = NULL;
  if (argc != 2) return 2;
  self = argv[1];
  setvbuf(stdout, NULL, _IOLBF, 0);
  loop = g_main_loop_new(NULL, FALSE);
  ChannelService* const proxy = channel_service_proxy_new_for_bus_sync(
      G_BUS_TYPE_SYSTEM, G_DBUS_PROXY_FLAGS_NONE, "org.tizen.qivo_thing", "/org/tizen/qivo_thing",
      NULL, &error);
  require(proxy != NULL, "proxy", error);
  g_signal_connect(proxy, "send-event", G_CALLBACK(on_event), NULL);
  g_signal_connect(proxy, "cloud-connection-changed", G_CALLBACK(on_connection), NULL);
  g_signal_connect(proxy, "dbus-server-ready", G_CALLBACK(on_ready), NULL);
  register_app(proxy);
  g_main_loop_run(loop);
  require(channel_service_call_unregister_app_sync(proxy, self, &result, NULL, &error),
          "unregister_app", error);
  printf("unregister_app %d\n", result);
  g_object_unref(proxy);
  g_main_loop_unref(loop);
  return 0;
}
