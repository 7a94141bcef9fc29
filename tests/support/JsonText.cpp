#include "JsonText.h"

#include <glib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace {

// GLib takes no NUL, which is a character of JSON like any other.
bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\0'), text.size());
    if (!g_utf8_validate(text.data(), static_cast<gssize>(end), nullptr)) return false;
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return true;
}

// Hands on what the document is made of, with the numbers as described.
class Handler {
 public:
  Handler(rapidjson::Document& document, bool checksUtf8)
      : m_document(document), m_checksUtf8(checksUtf8) {}

  bool Null() { return m_document.Null(); }
  bool Bool(bool value) { return m_document.Bool(value); }
  bool RawNumber(const char* text, rapidjson::SizeType size, bool /*copy*/) {
    const std::string_view number(text, size);
    const bool isInteger = number.find_first_of(".eE") == std::string_view::npos;
    // Without this flag of the reader it refuses what a double cannot hold.
    rapidjson::Document parsed;
    parsed.Parse(text, size);
    if (parsed.HasParseError()) return false;
    if (!isInteger) return m_document.Double(parsed.GetDouble());
    if (parsed.IsInt64()) return m_document.Int64(parsed.GetInt64());
    using Limits = std::numeric_limits<std::int64_t>;
    return m_document.Int64(number.front() == '-' ? Limits::min() : Limits::max());
  }
  bool String(const char* text, rapidjson::SizeType size, bool copy) {
    return isRight({text, size}) && m_document.String(text, size, copy);
  }
  bool StartObject() { return m_document.StartObject(); }
  bool Key(const char* text, rapidjson::SizeType size, bool copy) {
    return isRight({text, size}) && m_document.Key(text, size, copy);
  }
  bool EndObject(rapidjson::SizeType count) { return m_document.EndObject(count); }
  bool StartArray() { return m_document.StartArray(); }
  bool EndArray(rapidjson::SizeType count) { return m_document.EndArray(count); }

  // Never called: every number comes as text.
  bool Int(int /*value*/) { return false; }
  bool Uint(unsigned /*value*/) { return false; }
  bool Int64(std::int64_t /*value*/) { return false; }
  bool Uint64(std::uint64_t /*value*/) { return false; }
  bool Double(double /*value*/) { return false; }

 private:
  bool isRight(std::string_view text) const { return !m_checksUtf8 || isUtf8(text); }

  rapidjson::Document& m_document;
  const bool m_checksUtf8;
};

}  // namespace

JsonText::JsonText(std::string_view text) : m_text(text) {
  // Iterative: nothing limits how deep a payload is nested. In place, and with UTF-8 checked apart:
  // long texts take a tenth of the time.
  constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseInsituFlag |
                              rapidjson::kParseNumbersAsStringsFlag;
  if (text.find('\0') != std::string_view::npos || !isUtf8(text)) return;
  const bool mayBeWrong = text.find("\\u") != std::string_view::npos;
  const auto generate = [&](rapidjson::Document& document) {
    rapidjson::InsituStringStream stream(m_text.data());
    rapidjson::Reader reader;
    Handler handler(document, mayBeWrong);
    m_isJson = !reader.Parse<kFlags>(stream, handler).IsError();
    return m_isJson;
  };
  m_document.Populate(generate);
}
