#ifndef DEVICE_SERVICE_PAYLOAD_JSON_H
#define DEVICE_SERVICE_PAYLOAD_JSON_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace Lumo {

// A number is a real one when it is written with a fraction or an exponent.
enum class JsonKind { Null, Bool, Integer, Real, String, Array, Object };

// One value of a document.
struct JsonItem {
  JsonKind kind;
  std::size_t depth;      // how many arrays and objects contain it
  std::string_view name;  // of a member of an object, without escapes
  std::string_view text;  // of a string its value, of anything else its JSON
  double real;            // of a real number
};
using JsonVisitor = std::function<void(const JsonItem& item)>;

// Reads one whole document of RFC 8259 and calls `visit` for every value in it, in the order in
// which the values end: the content of an array or object comes before it. Names and strings are
// UTF-8 and valid until ReadJson returns; the other texts are parts of `text`. A document is also
// refused when it is nested deeper than 100 levels or has a number beyond a double.
//
// Returns an empty string, or what is wrong, without a quotation from the text; the values visited
// before that are then meaningless. Any thread.
std::string ReadJson(std::string_view text, const JsonVisitor& visit);

bool IsJson(std::string_view text);

// Append to `out`. What is not UTF-8 becomes U+FFFD.
void AppendJsonString(std::string& out, std::string_view text);
// The shortest text that reads back as the same number, and never as an integer; JSON has no
// infinities and no NaN: they become null.
void AppendJsonNumber(std::string& out, double number);

}  // namespace Lumo

#endif  // DEVICE_SERVICE_PAYLOAD_JSON_H
