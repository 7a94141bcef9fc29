#ifndef COMMON_LUMOWRAPPER_H
#define COMMON_LUMOWRAPPER_H

#include <lumo.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "CallGate.h"
#include "JsonValueAdaptor.h"
#include "MsgDispatcher.h"

namespace ThingCommon {

// The description of a device service. Every handler may be empty.
struct _ServiceInfo {
  using RequestHandler =
      std::function<void(void* request, const std::vector<JsonValueAdaptor>& properties)>;
  using CancelHandler = std::function<void(void* request)>;
  using ProtocolStatusHandler =
      std::function<void(const std::string& protocol, lumo_protocol_status status)>;

  std::string name;  // of the service, and of the dispatcher that its requests run on
  std::string description;
  // Called on the dispatcher's worker. `properties` holds one object {property name: value} per
  // property. The handler answers exactly once with SendGetResponse or SendSetResponse.
  RequestHandler get_handler;
  RequestHandler set_handler;
  // Called on the dispatcher's worker. No answer is sent.
  CancelHandler cancel_handler;
  // Called on a thread of the device-service library.
  ProtocolStatusHandler protocol_status_handler;
};

// The result of a get or set response.
enum _Result : int { RESULT_SUCCESS = 0, RESULT_FAIL = 3 };

// The only access to the device-service library: creates and destroys a device service, registers
// its properties, notifies changes, hands the cloud's requests to the handlers and answers them.
//
// Threads: the owner's threads call the operations; the library calls the four callbacks on threads
// of its own; the dispatcher's worker runs the handlers. m_mutex is not held while a handler runs,
// or a function of the library that may call back. The wrapper's address is the user data of the
// callbacks, so the wrapper must not move.
class LumoWrapper {
 public:
  LumoWrapper();
  // Does not destroy the device service: call Destroy first. Waits for what Shutdown waits for, and
  // joins the worker in any case. Like Shutdown, it must not run in a handler or a callback of its
  // own wrapper: it would wait for itself.
  ~LumoWrapper();
  LumoWrapper(const LumoWrapper&) = delete;
  LumoWrapper& operator=(const LumoWrapper&) = delete;

  // Creates the service and starts its dispatcher. False when the library refuses; then nothing is
  // changed, and an earlier service stays. A request that arrives before the handlers are stored is
  // answered with RESULT_FAIL.
  //
  // The new dispatcher takes over an earlier one, and its worker deletes that one before it handles
  // any request. Create waits two seconds at most for that: a handler that is still running may
  // need a lock that the caller holds. Until it ends, the new service's requests queue up, and
  // every further restart leaves one more thread waiting.
  bool Create(const _ServiceInfo& info);

  // Destroys the service and stops its dispatcher without waiting for a running handler. True when
  // there was a service. Forgets the service info in any case.
  bool Destroy();

  // Both try three times, 200 ms apart, and block the caller for 600 ms when all fail. False also
  // when there is no service.
  bool RegisterProperty(const std::string& name, JsonValueAdaptor::_Type type, int attr1, int attr2,
                        const std::string& attrText);
  bool UnregisterProperty(const std::string& name);

  // Notifies each member of the object `value` as a property. The name plays no part.
  void NotifyProperty(const std::string& name, const JsonValueAdaptor& value);

  // Answer one request with the members of the object `value`. Any result but RESULT_SUCCESS goes
  // to the library as the same failure code.
  void SendGetResponse(void* const& request, _Result result, const JsonValueAdaptor& value);
  void SendSetResponse(void* const& request, _Result result, const JsonValueAdaptor& value);

  // For the end of the process or of the library only: after Destroy, and with no lock held that a
  // handler or a callback may want.
  //
  // First waits for callbacks of the library that are still inside the wrapper, two seconds at
  // most, and logs those that stay. Such a callback then uses a wrapper that is being destroyed: a
  // fault of the library, and better than a process that cannot end. If it holds the wrapper's
  // lock, Shutdown waits two more seconds and leaves the worker to the destructor. Otherwise it
  // joins the worker and deletes the dispatcher, without a time limit: the thread of a running
  // handler cannot be left behind in code that may be unloaded.
  void Shutdown();

  // Null when there is no service.
  void* getServiceHandleSafely();
  // Calls `fn` with the service handle until it gives 0, three times at most.
  bool executeFunctionAndRetryIfFailed(std::function<lumo_error(void*)> fn);
  // Queues a copy of `job`; false when there is no dispatcher. A stopped dispatcher drops the job,
  // and the result is true all the same.
  bool addJobToDispatcher(std::function<void()>& job);
  // Queues a copy of `job`, or runs it at once when there is no dispatcher.
  void executeJob(std::function<void()>& job);

  // The library calls these. `userData` is the wrapper, a list is only borrowed.
  static void getCallback(void* service, void* request, void* list, void* userData);
  static void setCallback(void* service, void* request, void* list, void* userData);
  static void cancelCallback(void* service, void* request, void* userData);
  static void protocolStatusCallback(void* service, lumo_string protocol,
                                     lumo_protocol_status status, void* userData);

  // One object {name: value} per property, in the list's order. What cannot be read is left out.
  static std::vector<JsonValueAdaptor> getPropertyListFromLumoList(void* const& list);
  // {name: value}, or null when the property cannot be read or is a double.
  static JsonValueAdaptor getProperty(void* const& property);
  // A new list with one property per member of `value`, in the order of the names; the caller owns
  // it. Members that do not convert are left out. Null only when the library gives no list.
  static void* convertPropertyToLumoList(const JsonValueAdaptor& value);
  // A new property, or null when `value` does not convert. Reals are cut to whole 32-bit numbers.
  static void* convertProperty(const std::string& name, const JsonValueAdaptor& value);
  static JsonValueAdaptor::_Type getPropertyType(lumo_property_type type);
  // -1 where the library has no type.
  static lumo_property_type convertPropertyType(JsonValueAdaptor::_Type type);

 private:
  using RequestHandlerMember = _ServiceInfo::RequestHandler _ServiceInfo::*;
  using SendResponseMember = void (LumoWrapper::*)(void* const&, _Result, const JsonValueAdaptor&);

  // Converts the borrowed list and has the dispatcher call the handler with it.
  void postRequest(void* request, void* list, RequestHandlerMember handler,
                   SendResponseMember sendFailure);
  // A copy of a handler of m_service_info.
  template <typename Handler>
  Handler copyHandler(Handler _ServiceInfo::*handler);

  std::recursive_mutex m_mutex;  // guards the members below, but for the gate
  _ServiceInfo m_service_info;
  void* m_service_handle = nullptr;
  std::unique_ptr<MsgDispatcher> m_dispatcher;

  CallGate m_callback_gate;  // the library's callbacks pass through it
};

}  // namespace ThingCommon

#endif  // COMMON_LUMOWRAPPER_H
