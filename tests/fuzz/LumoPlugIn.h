#ifndef TESTS_FUZZ_LUMOPLUGIN_H
#define TESTS_FUZZ_LUMOPLUGIN_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ClientJudge.h"
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

  static LumoPlugIn& Get();

  void Create(const std::string& habits);
  // Any thread; what the service is destroyed for is that it returns.
  void Destroy();
  // After Destroy. What was handed on; nothing is, any more.
  std::vector<ClientJudge::Request> End();

  void Register(std::string_view name, int type);
  void Unregister(std::string_view name);
  void Notify(std::string_view name, std::size_t type, std::string_view value);
  // Answers a request that is kept, or was kept and is cancelled since.
  void Answer(std::size_t number, int code);
  // Waits until so many markers have come; not longer than it takes when none is refused.
  bool WaitForMarkers(std::size_t count);

 private:
  struct Kept {
    ClientJudge::Request request;
    void* handle;
  };

  LumoPlugIn() = default;
  ~LumoPlugIn() = default;

  static void onStatus(void* service, lumo_string protocol, lumo_protocol_status status,
                       void* generation);
  static void onGet(void* service, void* request, void* list, void* generation);
  static void onSet(void* service, void* request, void* list, void* generation);
  static void onCancel(void* service, void* request, void* generation);
  void handle(void* service, const Kept& kept, void* generation);
  static void answer(void* service, const Kept& kept, int code, bool mistakesTheKind);

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
