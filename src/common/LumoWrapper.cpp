#include "LumoWrapper.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>

#include "CleanUp.h"
#include "Log.h"

namespace ThingCommon {
namespace {

// The line field of this class's log lines. Log tools in the field find a message by file and line,
// so these numbers stay when the code moves.
namespace LogLine {
constexpr int kCreate = 32;
constexpr int kCreateFailed = 42;
constexpr int kDestroy = 55;
constexpr int kRegisterProperty = 74;
constexpr int kUnregisterProperty = 84;
constexpr int kSendGetResponse = 94;
constexpr int kSendSetResponse = 101;
constexpr int kNotifyProperty = 108;
constexpr int kInvalidHandle = 123;
constexpr int kAttemptSucceeded = 134;
constexpr int kAttemptFailed = 137;
constexpr int kNoPropertyName = 174;
constexpr int kPropertyException = 307;
constexpr int kNoList = 318;
constexpr int kListException = 336;
constexpr int kProtocolStatusCallback = 376;
constexpr int kProtocolStatus = 378;
constexpr int kGetCallback = 396;
constexpr int kGetCallbackNull = 400;
constexpr int kSetCallback = 428;
constexpr int kSetCallbackNull = 432;
constexpr int kCancelCallback = 460;
constexpr int kCancelCallbackNull = 464;
}  // namespace LogLine

constexpr unsigned kMaxAttempts = 3;
constexpr useconds_t kRetryDelayMicroseconds = 200'000;
constexpr std::chrono::seconds kMaxWaitForReplacedWorker(2);
constexpr std::chrono::seconds kMaxWaitForCallbacks(2);

constexpr lumo_error kResponseSuccess = 0;
constexpr lumo_error kResponseFailure = 6;

// The view is valid as long as `text`.
lumo_string toLumoString(const std::string& text) {
  return lumo_string_new(text.data(), text.size());
}

lumo_error toResponseCode(_Result result) {
  return result == RESULT_SUCCESS ? kResponseSuccess : kResponseFailure;
}

// Cut toward zero to a whole 32-bit number. Everything outside that range, NaN included, becomes
// the smallest one: the cast alone would be undefined there, and differ between processors.
double truncateToInt32(double value) {
  const bool inRange =
      value > static_cast<double>(INT32_MIN) - 1.0 && value < static_cast<double>(INT32_MAX) + 1.0;
  return static_cast<double>(inRange ? static_cast<int32_t>(value) : INT32_MIN);
}

// The view is valid as long as the value is unchanged.
lumo_string viewString(const Json::Value& value) {
  const char* begin = "";
  const char* end = begin;
  value.getString(&begin, &end);
  return lumo_string_new(begin, static_cast<std::size_t>(end - begin));
}

// As convertProperty, without a copy of the value.
void* createProperty(const lumo_string& name, const Json::Value& value) {
  try {
    switch (JsonValueAdaptor::GetType(value.type())) {
      case JsonValueAdaptor::TYPE_BOOL:
        return lumo_property_create_bool(name, value.asBool());
      case JsonValueAdaptor::TYPE_INT:
        return lumo_property_create_int(name, value.asInt());
      case JsonValueAdaptor::TYPE_UINT:
        // Above 2147483647 it arrives negative: the library knows only signed numbers.
        return lumo_property_create_int(name, static_cast<int>(value.asUInt()));
      case JsonValueAdaptor::TYPE_REAL:
        return lumo_property_create_double(name, truncateToInt32(value.asDouble()));
      case JsonValueAdaptor::TYPE_STRING:
        return lumo_property_create_string(name, viewString(value));
      case JsonValueAdaptor::TYPE_OBJECT:
      case JsonValueAdaptor::TYPE_ARRAY:
        return lumo_property_create_json_string(
            name, toLumoString(JsonValueAdaptor::ToString(value, false)));
      case JsonValueAdaptor::TYPE_NULL:
      default:
        return nullptr;
    }
  } catch (...) {
    LOG_LINE_AT(LOG_PRIORITY_ERROR, LOG_TAG_COMMON,
                LOG_SITE_AT("convertProperty", LogLine::kPropertyException),
                "exception occurred\n");
    return nullptr;
  }
}

// As lock(), for `timeout` at most, which a recursive mutex does not offer itself.
bool lockWithin(std::unique_lock<std::recursive_mutex>& lock, std::chrono::seconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!lock.try_lock()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// A string of the library's ends at its NUL; a null pointer is the empty string.
const char* toCString(const lumo_string& text) {
  return text.data == nullptr ? "" : text.data;
}

}  // namespace

LumoWrapper::LumoWrapper() {
  // Builds the adaptor's type tables now, so that they are destroyed after a wrapper that lives as
  // long as the process: a handler may run until then.
  JsonValueAdaptor::GetType(Json::nullValue);
  JsonValueAdaptor::ConvertType(JsonValueAdaptor::TYPE_NULL);
}

LumoWrapper::~LumoWrapper() {
  Shutdown();
}

bool LumoWrapper::Create(const _ServiceInfo& info) {
  const LogScope scope(LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kCreate));
  const std::string name = info.name;
  const std::string description = info.description;
  const lumo_string lumoDescription = toLumoString(description);
  const lumo_string lumoName = toLumoString(name);
  void* const handle = lumo_service_create(lumoName, lumoDescription, protocolStatusCallback,
                                           getCallback, setCallback, cancelCallback, this);
  if (handle == nullptr) {
    LOG_LINE_AT(LOG_PRIORITY_ERROR, LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kCreateFailed),
                "[%s] fail to lumo_service_create\n", info.name.c_str());
    return false;
  }

  std::future<void> replacedIsGone;
  try {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    _ServiceInfo stored = info;
    auto dispatcher = std::make_unique<MsgDispatcher>(name, m_dispatcher);
    // Nothing fails from here: the replaced dispatcher cannot be taken back.
    replacedIsGone = dispatcher->PredecessorGone();
    m_service_info = std::move(stored);
    m_service_handle = handle;
    m_dispatcher = std::move(dispatcher);
  } catch (...) {
    // Out of memory or threads. The service is destroyed, because nobody else knows of it.
    CleanUp().Run([handle] { lumo_service_destroy(handle); });
    throw;
  }
  // Without m_mutex, which a running handler takes in order to answer.
  replacedIsGone.wait_for(kMaxWaitForReplacedWorker);
  return true;
}

bool LumoWrapper::Destroy() {
  const LogScope scope(LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kDestroy));
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  const bool existed = m_service_handle != nullptr;
  CleanUp cleanUp;
  if (existed) {
    if (m_dispatcher) m_dispatcher->Quit();
    cleanUp.Run([this] { lumo_service_destroy(m_service_handle); });
    m_service_handle = nullptr;
  }
  m_service_info = _ServiceInfo();
  cleanUp.RethrowFirst();
  return existed;
}

bool LumoWrapper::RegisterProperty(const std::string& name, JsonValueAdaptor::_Type type, int attr1,
                                   int attr2, const std::string& attrText) {
  const LogScope scope(LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kRegisterProperty));
  return executeFunctionAndRetryIfFailed([&name, &type, &attr1, &attr2, &attrText](void* handle) {
    return lumo_service_register_property(handle, toLumoString(name), convertPropertyType(type),
                                          int64_t{attr1}, int64_t{attr2}, toLumoString(attrText));
  });
}

bool LumoWrapper::UnregisterProperty(const std::string& name) {
  const LogScope scope(LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kUnregisterProperty));
  return executeFunctionAndRetryIfFailed([&name](void* handle) {
    return lumo_service_unregister_property(handle, toLumoString(name));
  });
}

void LumoWrapper::NotifyProperty(const std::string& /*name*/, const JsonValueAdaptor& value) {
  const LogScope scope(LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kNotifyProperty));
  void* const list = convertPropertyToLumoList(value);
  lumo_service_notify(getServiceHandleSafely(), list);
}

void LumoWrapper::SendGetResponse(void* const& request, _Result result,
                                  const JsonValueAdaptor& value) {
  const LogScope scope(LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kSendGetResponse));
  void* const list = convertPropertyToLumoList(value);
  lumo_service_send_get_property_result(getServiceHandleSafely(), request, list,
                                        toResponseCode(result));
}

void LumoWrapper::SendSetResponse(void* const& request, _Result result,
                                  const JsonValueAdaptor& value) {
  const LogScope scope(LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kSendSetResponse));
  void* const list = convertPropertyToLumoList(value);
  lumo_service_send_set_property_result(getServiceHandleSafely(), request, list,
                                        toResponseCode(result));
}

void LumoWrapper::Shutdown() {
  if (!m_callback_gate.WaitUntilEmpty(kMaxWaitForCallbacks)) {
    LOG_E(LOG_TAG_COMMON, "[%s] still inside at the end\n", m_callback_gate.Inside().c_str());
  }
  std::unique_ptr<MsgDispatcher> dispatcher;
  {
    // Only a callback that is still inside holds it for long.
    std::unique_lock<std::recursive_mutex> lock(m_mutex, std::defer_lock);
    if (!lockWithin(lock, kMaxWaitForCallbacks)) {
      LOG_E(LOG_TAG_COMMON, "the lock is still held at the end\n");
      return;
    }
    dispatcher = std::move(m_dispatcher);
  }
  // Joined without m_mutex, which a running handler takes in order to answer.
}

void* LumoWrapper::getServiceHandleSafely() {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  return m_service_handle;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value, as the closure lives as long
bool LumoWrapper::executeFunctionAndRetryIfFailed(std::function<lumo_error(void*)> fn) {
  void* const handle = getServiceHandleSafely();
  if (handle == nullptr) {
    LOG_LINE_AT(LOG_PRIORITY_ERROR, LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kInvalidHandle),
                "invalid service_handle\n");
    return false;
  }
  for (unsigned attempt = 1; attempt <= kMaxAttempts; ++attempt) {
    const lumo_error error = fn(handle);
    if (error == 0) {
      LOG_LINE_AT(LOG_PRIORITY_DEBUG, LOG_TAG_COMMON,
                  LOG_SITE_AT(__func__, LogLine::kAttemptSucceeded), "(%u/%u) success.\n", attempt,
                  kMaxAttempts);
      return true;
    }
    LOG_LINE_AT(LOG_PRIORITY_ERROR, LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kAttemptFailed),
                "(%u/%u) fail. ret = %d\n", attempt, kMaxAttempts, error);
    usleep(kRetryDelayMicroseconds);
  }
  return false;
}

bool LumoWrapper::addJobToDispatcher(std::function<void()>& job) {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  if (!m_dispatcher) return false;
  m_dispatcher->EnqueueData(job);
  return true;
}

void LumoWrapper::executeJob(std::function<void()>& job) {
  if (!addJobToDispatcher(job)) job();
}

void LumoWrapper::getCallback(void* /*service*/, void* request, void* list, void* userData) {
  auto* const wrapper = static_cast<LumoWrapper*>(userData);
  const CallGate::Pass pass(wrapper != nullptr ? &wrapper->m_callback_gate : nullptr);
  const LogScope scope(LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kGetCallback));
  if (wrapper == nullptr) {
    LOG_LINE_AT(LOG_PRIORITY_ERROR, LOG_TAG_COMMON,
                LOG_SITE_AT(__func__, LogLine::kGetCallbackNull), "null obj\n");
    return;
  }
  wrapper->postRequest(request, list, &_ServiceInfo::get_handler, &LumoWrapper::SendGetResponse);
}

void LumoWrapper::setCallback(void* /*service*/, void* request, void* list, void* userData) {
  auto* const wrapper = static_cast<LumoWrapper*>(userData);
  const CallGate::Pass pass(wrapper != nullptr ? &wrapper->m_callback_gate : nullptr);
  const LogScope scope(LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kSetCallback));
  if (wrapper == nullptr) {
    LOG_LINE_AT(LOG_PRIORITY_ERROR, LOG_TAG_COMMON,
                LOG_SITE_AT(__func__, LogLine::kSetCallbackNull), "null obj\n");
    return;
  }
  wrapper->postRequest(request, list, &_ServiceInfo::set_handler, &LumoWrapper::SendSetResponse);
}

void LumoWrapper::cancelCallback(void* /*service*/, void* request, void* userData) {
  auto* const wrapper = static_cast<LumoWrapper*>(userData);
  const CallGate::Pass pass(wrapper != nullptr ? &wrapper->m_callback_gate : nullptr);
  const LogScope scope(LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kCancelCallback));
  if (wrapper == nullptr) {
    LOG_LINE_AT(LOG_PRIORITY_ERROR, LOG_TAG_COMMON,
                LOG_SITE_AT(__func__, LogLine::kCancelCallbackNull), "null obj\n");
    return;
  }
  std::function<void()> job = [wrapper, request] {
    const auto handler = wrapper->copyHandler(&_ServiceInfo::cancel_handler);
    if (handler) handler(request);
  };
  wrapper->executeJob(job);
}

void LumoWrapper::protocolStatusCallback(void* /*service*/, lumo_string protocol,
                                         lumo_protocol_status status, void* userData) {
  auto* const wrapper = static_cast<LumoWrapper*>(userData);
  const CallGate::Pass pass(wrapper != nullptr ? &wrapper->m_callback_gate : nullptr);
  const LogScope scope(LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kProtocolStatusCallback));
  const std::string text = toCString(protocol);
  LOG_LINE_AT(LOG_PRIORITY_INFO, LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kProtocolStatus),
              "[%s] status: %d\n", text.c_str(), status);
  if (wrapper == nullptr) return;
  const auto handler = wrapper->copyHandler(&_ServiceInfo::protocol_status_handler);
  if (handler) handler(text, status);
}

std::vector<JsonValueAdaptor> LumoWrapper::getPropertyListFromLumoList(void* const& list) {
  std::vector<JsonValueAdaptor> properties;
  for (void* property = lumo_property_list_get_first(list); property != nullptr;
       property = lumo_property_list_get_next(list, property)) {
    JsonValueAdaptor value = getProperty(property);
    if (!value.isNull()) properties.push_back(std::move(value));
  }
  return properties;
}

JsonValueAdaptor LumoWrapper::getProperty(void* const& property) {
  JsonValueAdaptor result;
  if (property == nullptr) return result;
  const lumo_string lumoName = lumo_property_get_name(property);
  if (lumoName.data == nullptr) {
    LOG_LINE_AT(LOG_PRIORITY_ERROR, LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kNoPropertyName),
                "fail to lumo_property_get_name\n");
    return result;
  }
  const std::string name(lumoName.data);
  switch (lumo_property_get_type(property)) {
    case LUMO_PROPERTY_TYPE_BOOL: {
      bool value = false;
      if (lumo_property_get_bool(property, &value) == 0) result[name] = value;
      break;
    }
    case LUMO_PROPERTY_TYPE_INT: {
      int value = 0;
      if (lumo_property_get_int(property, &value) == 0) result[name] = value;
      break;
    }
    case LUMO_PROPERTY_TYPE_STRING:
      result[name] = toCString(lumo_property_get_string(property));
      break;
    case LUMO_PROPERTY_TYPE_JSON_STRING: {
      const lumo_string text = lumo_property_get_json_string(property);
      // A null string is a property without a value, and still a property.
      result[name] = text.data == nullptr ? Json::Value() : JsonValueAdaptor::Create(text.data);
      break;
    }
    case LUMO_PROPERTY_TYPE_BYTES: {
      const lumo_bytes bytes = lumo_property_get_bytes(property);
      // Not encoded: each byte is one character of the string, NUL included.
      if (bytes.data != nullptr) result[name] = std::string(bytes.data, bytes.data + bytes.length);
      break;
    }
    default:
      // Doubles are dropped on purpose, as is what has no reader.
      break;
  }
  return result;
}

void* LumoWrapper::convertPropertyToLumoList(const JsonValueAdaptor& value) {
  void* const list = lumo_property_list_create();
  if (list == nullptr) {
    LOG_LINE_AT(LOG_PRIORITY_ERROR, LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kNoList),
                "fail to lumo_property_list_create\n");
    return nullptr;
  }
  try {
    if (!value.isObject() && !value.isNull()) throw std::invalid_argument("no members");
    for (auto member = value.begin(); member != value.end(); ++member) {
      const char* end = nullptr;
      const char* const name = member.memberName(&end);
      void* const property =
          createProperty(lumo_string_new(name, static_cast<std::size_t>(end - name)), *member);
      if (property != nullptr) lumo_property_list_push_property(list, property, 0);
    }
  } catch (...) {
    LOG_LINE_AT(LOG_PRIORITY_ERROR, LOG_TAG_COMMON, LOG_SITE_AT(__func__, LogLine::kListException),
                "exception occurred\n");
  }
  return list;
}

void* LumoWrapper::convertProperty(const std::string& name, const JsonValueAdaptor& value) {
  return createProperty(toLumoString(name), value);
}

JsonValueAdaptor::_Type LumoWrapper::getPropertyType(lumo_property_type type) {
  constexpr std::array<JsonValueAdaptor::_Type, 6> kTypes = {
      JsonValueAdaptor::TYPE_BOOL,   JsonValueAdaptor::TYPE_INT,    JsonValueAdaptor::TYPE_REAL,
      JsonValueAdaptor::TYPE_STRING, JsonValueAdaptor::TYPE_OBJECT, JsonValueAdaptor::TYPE_STRING};
  if (type < 0 || static_cast<std::size_t>(type) >= kTypes.size()) {
    return JsonValueAdaptor::TYPE_NULL;
  }
  return kTypes[static_cast<std::size_t>(type)];
}

lumo_property_type LumoWrapper::convertPropertyType(JsonValueAdaptor::_Type type) {
  constexpr lumo_property_type kUnknown = -1;
  // The library has no name for this one; it is what reals are registered with.
  constexpr lumo_property_type kReal = 6;
  constexpr std::array<lumo_property_type, 8> kTypes = {kUnknown,
                                                        LUMO_PROPERTY_TYPE_BOOL,
                                                        LUMO_PROPERTY_TYPE_INT,
                                                        LUMO_PROPERTY_TYPE_INT,
                                                        kReal,
                                                        LUMO_PROPERTY_TYPE_STRING,
                                                        LUMO_PROPERTY_TYPE_JSON_STRING,
                                                        LUMO_PROPERTY_TYPE_JSON_STRING};
  if (type < 0 || static_cast<std::size_t>(type) >= kTypes.size()) return kUnknown;
  return kTypes[static_cast<std::size_t>(type)];
}

void LumoWrapper::postRequest(void* request, void* list, RequestHandlerMember handler,
                              SendResponseMember sendFailure) {
  // Shared, so that copies of the job do not copy the properties.
  const auto properties =
      std::make_shared<const std::vector<JsonValueAdaptor>>(getPropertyListFromLumoList(list));
  std::function<void()> job = [this, request, properties, handler, sendFailure] {
    const auto callHandler = copyHandler(handler);
    if (callHandler) {
      callHandler(request, *properties);
    } else {
      (this->*sendFailure)(request, RESULT_FAIL, JsonValueAdaptor());
    }
  };
  executeJob(job);
}

template <typename Handler>
Handler LumoWrapper::copyHandler(Handler _ServiceInfo::*handler) {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  return m_service_info.*handler;
}

}  // namespace ThingCommon
