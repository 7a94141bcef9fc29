#include "JsonValueAdaptor.h"

#include <array>
#include <exception>
#include <map>
#include <sstream>
#include <utility>

#include "Log.h"

namespace ThingCommon {
namespace {

struct TypePair {
  JsonValueAdaptor::_Type tag;
  Json::ValueType jsonType;
};

constexpr std::array<TypePair, 8> kTypePairs = {{
    {JsonValueAdaptor::TYPE_NULL, Json::nullValue},
    {JsonValueAdaptor::TYPE_BOOL, Json::booleanValue},
    {JsonValueAdaptor::TYPE_INT, Json::intValue},
    {JsonValueAdaptor::TYPE_UINT, Json::uintValue},
    {JsonValueAdaptor::TYPE_REAL, Json::realValue},
    {JsonValueAdaptor::TYPE_STRING, Json::stringValue},
    {JsonValueAdaptor::TYPE_OBJECT, Json::objectValue},
    {JsonValueAdaptor::TYPE_ARRAY, Json::arrayValue},
}};

}  // namespace

std::recursive_mutex JsonValueAdaptor::m_mutex;

JsonValueAdaptor::JsonValueAdaptor() = default;

JsonValueAdaptor::JsonValueAdaptor(const Json::Value& value) : Json::Value(value) {}

JsonValueAdaptor::JsonValueAdaptor(_Type type) : Json::Value(ConvertType(type)) {}

JsonValueAdaptor::_Type JsonValueAdaptor::Type() const {
  return GetType(type());
}

std::string JsonValueAdaptor::ToString(bool styled) const {
  return ToString(*this, styled);
}

JsonValueAdaptor::_Type JsonValueAdaptor::GetType(Json::ValueType type) {
  // Keyed by the number: a JsonCpp enumerator could not hold the other numbers that are looked up,
  // because the enumeration has no fixed type, and so no values but 0 to 7.
  static std::map<int, _Type> jsonValueTypeTable;
  {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (jsonValueTypeTable.empty()) {
      // Filled aside, so that a lack of memory leaves no half-filled table behind.
      std::map<int, _Type> table;
      for (const TypePair& pair : kTypePairs) table[pair.jsonType] = pair.tag;
      jsonValueTypeTable.swap(table);
    }
  }
  return jsonValueTypeTable[type];
}

Json::ValueType JsonValueAdaptor::ConvertType(_Type type) {
  static std::map<_Type, Json::ValueType> myTypeTable;  // the tag has a fixed type: any int fits
  {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (myTypeTable.empty()) {
      std::map<_Type, Json::ValueType> table;
      for (const TypePair& pair : kTypePairs) table[pair.tag] = pair.jsonType;
      myTypeTable.swap(table);
    }
  }
  return myTypeTable[type];
}

std::string JsonValueAdaptor::ToString(const Json::Value& value, bool styled) {
  std::string result;
  const auto job = [&value, styled, &result] {
    if (styled) {
      result = value.toStyledString();
      return;
    }
    Json::StreamWriterBuilder builder;
    builder["commentStyle"] = "None";
    builder["indentation"] = "";
    result = Json::writeString(builder, value);
  };
  // By reference: a function object that held the job might have to allocate, outside the try.
  HandleException(std::ref(job), "");
  return result;
}

JsonValueAdaptor JsonValueAdaptor::Create(const std::string& text) {
  JsonValueAdaptor result;
  const auto job = [&text, &result] {
    std::stringstream stream(text);
    stream >> result;
  };
  HandleException(std::ref(job), "");
  return result;
}

void JsonValueAdaptor::HandleException(const std::function<void()>& job, const std::string& tag) {
  try {
    job();
  } catch (const Json::Exception& e) {
    LOG_E(LOG_TAG_COMMON, "[%s] json exception: %s\n", tag.c_str(), e.what());
  } catch (const std::exception& e) {
    LOG_E(LOG_TAG_COMMON, "[%s] exception: %s\n", tag.c_str(), e.what());
  } catch (...) {
    LOG_E(LOG_TAG_COMMON, "[%s] unknown exception\n", tag.c_str());
  }
}

}  // namespace ThingCommon
