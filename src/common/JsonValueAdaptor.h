#ifndef COMMON_JSONVALUEADAPTOR_H
#define COMMON_JSONVALUEADAPTOR_H

#include <json/json.h>

#include <functional>
#include <mutex>
#include <string>

namespace ThingCommon {

// A JSON value with a type tag of the library's own. It can be created from such a tag, and
// converted to and from a string without an exception.
//
// Otherwise an adaptor is a Json::Value, and adds no data to it. It has no lock: two threads must
// not change one adaptor at once.
class JsonValueAdaptor : public Json::Value {
 public:
  // The numbers are part of the interface: tables are indexed by them.
  enum _Type : int {
    TYPE_NULL = 0,
    TYPE_BOOL = 1,
    TYPE_INT = 2,
    TYPE_UINT = 3,
    TYPE_REAL = 4,
    TYPE_STRING = 5,
    TYPE_OBJECT = 6,
    TYPE_ARRAY = 7
  };

  // A null value.
  JsonValueAdaptor();
  // A copy of `value`. Not explicit: an adaptor is a JSON value, and the other way round.
  JsonValueAdaptor(const Json::Value& value);
  // The empty value of `type`: null, false, 0, 0, 0.0, "", {} or [].
  explicit JsonValueAdaptor(_Type type);

  _Type Type() const;
  std::string ToString(bool styled) const;

  // From JsonCpp's types to tags and back. Anything outside 0 to 7 gives 0.
  static _Type GetType(Json::ValueType type);
  static Json::ValueType ConvertType(_Type type);

  // `value` as JSON text: over several indented lines that end with a line feed (`styled`), or
  // compactly in one line without one. Empty when writing failed. Never throws.
  static std::string ToString(const Json::Value& value, bool styled);

  // Parses `text`. Never throws: where `text` is not valid JSON, this logs the error and returns
  // what was parsed before it, null when that was nothing. Callers that must know check the
  // result's type or content.
  static JsonValueAdaptor Create(const std::string& text);

  // Runs `job`; logs what it throws, with `tag` in brackets, and returns normally.
  static void HandleException(const std::function<void()>& job, const std::string& tag);

 private:
  // Guards the first filling of the two type tables. Lookups of members of the enumerations take no
  // lock, because they only read. A lookup of any other number inserts it, so two threads must not
  // do that at once.
  static std::recursive_mutex m_mutex;
};

}  // namespace ThingCommon

#endif  // COMMON_JSONVALUEADAPTOR_H
