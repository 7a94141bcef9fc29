#ifndef TESTS_SUPPORT_JSONTEXT_H
#define TESTS_SUPPORT_JSONTEXT_H

#include <stdexcept>
#include <string>
#include <string_view>

// For RapidJSON, before its headers. With exceptions of its own the adapter would make two strings
// for each letter that is read; without, a schema that it does not understand ends the process.
#define RAPIDJSON_ASSERT(condition) \
  ((condition) ? static_cast<void>(0) : throw std::logic_error("RapidJSON: " #condition))
#include <valijson/adapters/rapidjson_adapter.hpp>

// Reads JSON to the letter: no comments, no further text, UTF-8 throughout, whole surrogate pairs,
// numbers that a double can hold. What has a fraction or an exponent is a real number, 1.0 as well;
// an integer that 64 bits cannot hold becomes the greatest or smallest one that they can.
class JsonText {
 public:
  using Value = rapidjson::Value;

  explicit JsonText(std::string_view text);
  JsonText(const JsonText&) = delete;
  JsonText& operator=(const JsonText&) = delete;

  bool IsJson() const { return m_isJson; }
  // Only of JSON. It ends with this object.
  const Value& Get() const { return m_document; }

 private:
  std::string m_text;  // the document's strings are in it
  rapidjson::Document m_document;
  bool m_isJson = false;
};

#endif  // TESTS_SUPPORT_JSONTEXT_H
