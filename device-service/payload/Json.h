#ifndef DEVICE_SERVICE_PAYLOAD_JSON_H
#define DEVICE_SERVICE_PAYLOAD_JSON_H

#include <json/json.h>

#include <optional>
#include <string>
#include <string_view>

namespace Lumo {

// Reads JSON documents. To make one takes longer than to read a short text. Any thread.
class JsonReader {
 public:
  JsonReader();

  // One whole document; nothing when the text is none, is not UTF-8, begins with a byte order
  // mark or is nested deeper than 100 levels, and then `error`, when it is not null, says what is
  // wrong. Of members with one name the last one counts.
  std::optional<Json::Value> Read(std::string_view text, std::string* error) const;

 private:
  Json::CharReaderBuilder m_builder;
};

// The same, with a reader of its own.
std::optional<Json::Value> ParseJson(std::string_view text, std::string* error);

// Append to `out`. What is not UTF-8 becomes U+FFFD.
void AppendJsonString(std::string& out, std::string_view text);
// The shortest text that reads back as the same number, and never as an integer; JSON has no
// infinities and no NaN: they become null.
void AppendJsonNumber(std::string& out, double number);

}  // namespace Lumo

#endif  // DEVICE_SERVICE_PAYLOAD_JSON_H
