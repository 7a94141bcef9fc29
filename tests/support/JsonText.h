#ifndef TESTS_SUPPORT_JSONTEXT_H
#define TESTS_SUPPORT_JSONTEXT_H

// It wants to come before RapidJSON's own headers.
#define VALIJSON_USE_EXCEPTIONS 1
#include <valijson/adapters/rapidjson_adapter.hpp>

#include <string_view>

// Reads JSON to the letter: no comments, no further text, UTF-8 throughout, whole surrogate pairs,
// numbers that a double can hold. What has a fraction or an exponent is a real number, 1.0 as well;
// an integer that 64 bits cannot hold becomes the greatest or smallest one that they can.
class JsonText {
 public:
  using Value = rapidjson::Value;

  explicit JsonText(std::string_view text);

  bool IsJson() const { return m_isJson; }
  // Only of JSON. It ends with this object.
  const Value& Get() const { return m_document; }

 private:
  rapidjson::Document m_document;
  bool m_isJson = false;
};

#endif  // TESTS_SUPPORT_JSONTEXT_H
