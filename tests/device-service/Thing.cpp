// A process with a service "service" that a test can kill. Its string property "a" is "1".
#include <unistd.h>

#include <string>

#include "lumo.h"

namespace {

lumo_string view(const std::string& text) {
  return lumo_string_new(text.data(), text.size());
}

void ignoreStatus(void*, lumo_string, lumo_protocol_status, void*) {}
void ignoreCancel(void*, void*, void*) {}
void succeed(void* service, void* request, void*, void*) {
  lumo_service_send_set_property_result(service, request, lumo_property_list_create(), 0);
}

}  // namespace

int main() {
  void* const service = lumo_service_create(view("service"), view(""), ignoreStatus, succeed,
                                            succeed, ignoreCancel, nullptr);
  if (service == nullptr) return 1;
  lumo_service_register_property(service, view("a"), LUMO_PROPERTY_TYPE_STRING, 0, 0, view(""));
  void* const list = lumo_property_list_create();
  lumo_property_list_push_property(list, lumo_property_create_string(view("a"), view("1")), 0);
  lumo_service_notify(service, list);
  while (true) pause();
}
