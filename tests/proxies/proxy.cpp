// With the proxy that qdbusxml2cpp makes: see proxies_test.py.
#include "proxy.h"

#include <QCoreApplication>

#include <cstdlib>
#include <iostream>

namespace {

// The call's result; ends the program when the call has failed.
template <typename Value>
Value resultOf(const char* method, QDBusPendingReply<Value> reply) {
  reply.waitForFinished();
  if (!reply.isError()) return reply.value();
  std::cerr << method << ": " << reply.error().message().toStdString() << std::endl;
  std::exit(1);
}

const char* text(bool value) {
  return value ? "true" : "false";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  QCoreApplication application(argc, argv);
  const QString self = argv[1];
  ChannelProxy proxy("org.tizen.qivo_thing", "/org/tizen/qivo_thing", QDBusConnection::systemBus());

  QObject::connect(&proxy, &ChannelProxy::send_event,
                   [&](const QString& name, const QString& data) {
                     if (name != self) return;
                     std::cout << "send_event " << data.toStdString() << std::endl;
                     if (data == "end") {
                       QCoreApplication::quit();
                       return;
                     }
                     std::cout << "send_data " << resultOf("send_data", proxy.send_data(self, data))
                               << std::endl;
                   });
  QObject::connect(&proxy, &ChannelProxy::cloud_connection_changed, [&](bool connected) {
    std::cout << "cloud_connection_changed " << text(connected) << std::endl;
    std::cout << "get_cloud_connection "
              << text(resultOf("get_cloud_connection", proxy.get_cloud_connection())) << std::endl;
    const QString info = resultOf("get_thing_information", proxy.get_thing_information());
    std::cout << "get_thing_information " << info.trimmed().toStdString() << std::endl;
  });
  const auto registerApp = [&] {
    std::cout << "register_app " << resultOf("register_app", proxy.register_app(self)) << std::endl;
  };
  QObject::connect(&proxy, &ChannelProxy::dbus_server_ready, [&] {
    std::cout << "dbus_server_ready" << std::endl;
    registerApp();
  });

  registerApp();
  QCoreApplication::exec();
  std::cout << "unregister_app " << resultOf("unregister_app", proxy.unregister_app(self))
            << std::endl;
  return 0;
}
