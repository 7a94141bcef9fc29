// bare-sdbus NAME: a service with sd-bus that only replies, for comparison. Says "ready" once it
// has the name; runs until it is killed.
#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Interface.h"

namespace {

int on_call(sd_bus_message* call, void* /*data*/, sd_bus_error* /*error*/) {
  return sd_bus_reply_method_return(call, "i", 0);
}

int require(int result) {
  if (result >= 0) return result;
  std::fprintf(stderr, "bare-sdbus: %s\n", std::strerror(-result));
  std::exit(EXIT_FAILURE);
}

}  // namespace

int main(int /*argc*/, char** argv) {
  const sd_bus_vtable table[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD("register_app", "s", "i", on_call, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_METHOD("send_data", "ss", "i", on_call, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END};
  sd_bus* bus = nullptr;
  require(sd_bus_open_system(&bus));
  require(sd_bus_add_object_vtable(bus, nullptr, kObjectPath, kInterface, table, nullptr));
  require(sd_bus_request_name(bus, argv[1], 0));
  std::puts("ready");
  std::fflush(stdout);
  while (true) {
    if (require(sd_bus_process(bus, nullptr)) == 0) require(sd_bus_wait(bus, UINT64_MAX));
  }
}
