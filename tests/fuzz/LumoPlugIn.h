#ifndef TESTS_FUZZ_LUMOPLUGIN_H
#define TESTS_FUZZ_LUMOPLUGIN_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ClientJudge.h"
#include "Require.h"
#include "lumo.h"

namespace fuzz {

// A plug-in on the C interface, with one device service at a time. Its habits say what it does with
// each request in turn: i answers at once, k keeps it until it is told to answer, w first answers
// as if it were of the other kind; with any other letter it never answers. Callbacks may still come
// while or after a service is destroyed, so the plug-in is never destroyed.
class LumoPlugIn {
 public:
  // A request for this property is answered at once, whatever the habits are.
  static constexpr const char* kMarker = "~marker";

  static LumoPlugIn& Get() {
    // What a late callback uses outlives the process's static objects.
    alignas(LumoPlugIn) static std::byte place[sizeof(LumoPlugIn)];
    static LumoPlugIn* const plugIn = new (place) LumoPlugIn;
    return *plugIn;
  }

  void Create(const std::string& habits) {
    void* generation = nullptr;
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_habits = habits;
      m_requests.clear();
      m_handles.clear();
      m_kept.clear();
      m_markers = 0;
      generation = reinterpret_cast<void*>(++m_generation);
    }
    m_service = lumo_service_create(viewOf("channel"), viewOf("x"), &onStatus, &onRequest<true>,
                                    &onRequest<false>, &onCancel, generation);
    Require(m_service != nullptr, "a service can be created");
  }

  // Any thread; what the service is destroyed for is that it returns.
  void Destroy() { Require(lumo_service_destroy(m_service) == 0, "a service can be destroyed"); }

  // After Destroy. What was handed on; nothing is, any more.
  std::vector<ClientJudge::Request> End() {
    Require(lumo_service_destroy(m_service) != 0, "a service can be destroyed once");
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_generation;
    return std::exchange(m_requests, {});
  }

  void Register(std::string_view name, int type) {
    lumo_service_register_property(m_service, viewOf(name), type, 0, 0, viewOf("text"));
  }
  void Unregister(std::string_view name) {
    lumo_service_unregister_property(m_service, viewOf(name));
  }
  void Notify(std::string_view name, std::size_t type, std::string_view value) {
    void* const list = lumo_property_list_create();
    lumo_property_list_push_property(list, propertyOf(name, type, value), 0);
    lumo_service_notify(m_service, list);
  }

  // Answers a request that is kept, or was kept and is cancelled since.
  void Answer(std::size_t number, int code) {
    Kept kept;
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      if (m_kept.empty()) return;
      const auto place = m_kept.begin() + static_cast<std::ptrdiff_t>(number % m_kept.size());
      kept = *place;
      m_kept.erase(place);
    }
    answer(m_service, kept, code, false);
  }

  // Waits until so many markers have come; not longer than it takes when none is refused, which
  // nobody says here.
  bool WaitForMarkers(std::size_t count) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(20),
                              [&] { return m_markers >= count; });
  }

 private:
  struct Kept {
    ClientJudge::Request request;
    void* handle;
  };

  LumoPlugIn() = default;
  ~LumoPlugIn() = default;

  static lumo_string viewOf(std::string_view text) {
    return lumo_string_new(text.data(), text.size());
  }

  static void* propertyOf(std::string_view name, std::size_t type, std::string_view value) {
    switch (type % 5) {
      case 0:
        return lumo_property_create_bool(viewOf(name), !value.empty());
      case 1:
        return lumo_property_create_int(viewOf(name), static_cast<int>(value.size()));
      case 2:
        return lumo_property_create_double(viewOf(name), static_cast<double>(value.size()) / 3);
      case 3:
        return lumo_property_create_string(viewOf(name), viewOf(value));
      default:
        return lumo_property_create_json_string(viewOf(name), viewOf(value));
    }
  }

  // Reads every value as its type says.
  static void readValue(void* property) {
    const lumo_property_type type = lumo_property_get_type(property);
    const bool isJson = type == LUMO_PROPERTY_TYPE_JSON_STRING;
    bool flag = false;
    int number = 0;
    if (type == LUMO_PROPERTY_TYPE_BOOL) {
      Require(lumo_property_get_bool(property, &flag) == 0, "a bool can be read");
    } else if (type == LUMO_PROPERTY_TYPE_INT) {
      Require(lumo_property_get_int(property, &number) == 0, "an int can be read");
    } else if (type == LUMO_PROPERTY_TYPE_STRING || isJson) {
      const lumo_string text =
          isJson ? lumo_property_get_json_string(property) : lumo_property_get_string(property);
      RequireEqual(std::string_view(text.data).size(), text.length, "a string ends with its NUL");
    } else if (type == LUMO_PROPERTY_TYPE_BYTES) {
      const lumo_bytes value = lumo_property_get_bytes(property);
      static_cast<void>(std::vector<unsigned char>(value.data, value.data + value.length));
    }
  }

  static std::vector<std::string> readList(void* list) {
    std::vector<std::string> names;
    for (void* property = lumo_property_list_get_first(list); property != nullptr;
         property = lumo_property_list_get_next(list, property)) {
      const lumo_string name = lumo_property_get_name(property);
      names.emplace_back(name.data, name.length);
      readValue(property);
    }
    return names;
  }

  static void onStatus(void* /*service*/, lumo_string protocol, lumo_protocol_status status,
                       void* /*generation*/) {
    Require(
        std::string_view(protocol.data, protocol.length) == "mqtt" && (status == 0 || status == 1),
        "MQTT is connected or not");
  }

  template <bool kIsGet>
  static void onRequest(void* service, void* request, void* list, void* generation) {
    Get().handle(service, {{kIsGet, readList(list)}, request}, generation);
  }

  static void onCancel(void* /*service*/, void* request, void* generation) {
    LumoPlugIn& self = Get();
    const std::lock_guard<std::mutex> lock(self.m_mutex);
    if (reinterpret_cast<std::uintptr_t>(generation) != self.m_generation) return;
    Require(self.m_handles.erase(request) == 1,
            "only a request that was handed on is cancelled, once");
  }

  void handle(void* service, const Kept& kept, void* generation) {
    char habit = 'i';
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      if (reinterpret_cast<std::uintptr_t>(generation) != m_generation) return;
      Require(m_handles.insert(kept.handle).second, "a request is handed on once");
      const std::vector<std::string>& names = kept.request.names;
      if (names.size() == 1 && names.front() == kMarker) {
        ++m_markers;
        m_changed.notify_all();
      } else {
        habit = m_habits.empty() ? 'k' : m_habits[m_requests.size() % m_habits.size()];
      }
      m_requests.push_back(kept.request);
      Require(m_requests.size() < 20'000, "an input has not so many requests");
      if (habit == 'k') m_kept.push_back(kept);
    }
    if (habit == 'w') answer(service, kept, 0, true);
    if (habit == 'i' || habit == 'w') answer(service, kept, 0, false);
  }

  static void answer(void* service, const Kept& kept, int code, bool mistakesTheKind) {
    void* const list = lumo_property_list_create();
    const std::vector<std::string>& names = kept.request.names;
    for (std::size_t i = 0; i < names.size(); ++i) {
      lumo_property_list_push_property(list, propertyOf(names[i], i, names[i]),
                                       static_cast<int>(i % 3));
    }
    const auto send = kept.request.isGet != mistakesTheKind ? lumo_service_send_get_property_result
                                                            : lumo_service_send_set_property_result;
    const lumo_error result = send(service, kept.handle, list, code);
    Require(!mistakesTheKind || result != 0, "an answer of another kind is not taken");
  }

  void* m_service = nullptr;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  // All guarded by m_mutex:
  std::uintptr_t m_generation = 0;  // callbacks of another one are none of this service's
  std::string m_habits;
  std::vector<ClientJudge::Request> m_requests;
  std::set<void*> m_handles;
  std::vector<Kept> m_kept;
  std::size_t m_markers = 0;
};

}  // namespace fuzz

#endif  // TESTS_FUZZ_LUMOPLUGIN_H
