#ifndef TESTS_SUPPORT_JSONSCHEMA_H
#define TESTS_SUPPORT_JSONSCHEMA_H

#include <memory>
#include <string>
#include <string_view>

#include "JsonText.h"

// A JSON Schema (draft 7), ready to hold values against. It never changes once it is made, so that
// any thread may use it.
class JsonSchema {
 public:
  // `schema` may refer to what is below `root`. Throws std::runtime_error for a reference or a
  // pattern that is none; any other mistake ends the process.
  JsonSchema(const JsonText::Value& root, const JsonText::Value& schema);
  ~JsonSchema();
  JsonSchema(JsonSchema&& other) noexcept;
  JsonSchema& operator=(JsonSchema&& other) noexcept;

  // What is wrong with the value; empty when it fits.
  std::string FaultOf(const JsonText::Value& value) const;
  bool Fits(const JsonText::Value& value) const;

 private:
  struct Compiled;

  std::unique_ptr<Compiled> m_compiled;
};

#endif  // TESTS_SUPPORT_JSONSCHEMA_H
