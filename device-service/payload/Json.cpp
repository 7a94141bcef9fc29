#include "payload/Json.h"

#include <glib.h>
#include <rapidjson/encodings.h>
#include <rapidjson/error/en.h>
#include <rapidjson/error/error.h>
#include <rapidjson/reader.h>
#include <rapidjson/stream.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

#include "values/Utf8.h"
#include "values/Word.h"

namespace Lumo {
namespace {

constexpr std::size_t kMaxDepth = 100;
// An integer of as many digits is a double in any case.
constexpr std::size_t kSafeDigits = 308;
constexpr const char* kNumberTooLarge = "a number beyond a double";

// UTF-8 for the reader, which asks its transcoder to copy the characters of a string that are
// neither escapes nor the end.
struct RunsOfUtf8 : rapidjson::UTF8<> {};

// Other than 0 when a byte of the word is a quotation mark, a backslash or a control character. In
// each of the three differences such a byte, and only such a byte or one after it, borrows into its
// highest bit, which is not set in the word itself.
constexpr Word specialBytes(Word word) {
  return ((word - RepeatByte(' ')) | ((word ^ RepeatByte('"')) - RepeatByte(1)) |
          ((word ^ RepeatByte('\\')) - RepeatByte(1))) &
         ~word & kHighBits;
}

// As many bytes can be read after the end of the text.
constexpr std::size_t kPadding = 2 * sizeof(Word);

// The length of the run of such characters at `text`.
std::size_t plainLength(const char* text) {
  const char* next = text;
  while ((specialBytes(LoadWord(next)) | specialBytes(LoadWord(next + sizeof(Word)))) == 0) {
    next += 2 * sizeof(Word);
  }
  while (static_cast<unsigned char>(*next) >= ' ' && *next != '"' && *next != '\\') ++next;
  return static_cast<std::size_t>(next - text);
}

// Turns the events of RapidJSON's reader into items. An event function that returns false ends the
// reading.
class Handler : public rapidjson::BaseReaderHandler<RunsOfUtf8, Handler> {
 public:
  // The stream reads a copy of the text, in which the reader resolves escapes.
  Handler(std::string_view text, rapidjson::InsituStringStream& stream, const JsonVisitor& visit)
      : m_text(text), m_stream(stream), m_visit(visit) {}

  // Why it has ended the reading.
  const char* Fault() const { return m_fault; }

  bool Null() { return emit(JsonKind::Null, "null"); }
  bool Bool(bool flag) { return emit(JsonKind::Bool, flag ? "true" : "false"); }

  bool RawNumber(const char* start, rapidjson::SizeType length, bool /*copy*/) {
    const std::string_view number(start, length);
    const bool isInteger = number.find_first_of(".eE") == std::string_view::npos;
    if (isInteger && length <= kSafeDigits) return emit(JsonKind::Integer, number);
    // The character after the number cannot continue it.
    const double real = g_ascii_strtod(start, nullptr);
    if (!std::isfinite(real)) return fail(kNumberTooLarge);
    return isInteger ? emit(JsonKind::Integer, number) : emit(JsonKind::Real, number, real);
  }

  bool String(const char* start, rapidjson::SizeType length, bool /*copy*/) {
    const std::string_view string(start, length);
    return checkUtf8(string) && emit(JsonKind::String, string);
  }

  bool Key(const char* start, rapidjson::SizeType length, bool /*copy*/) {
    m_name = {start, length};
    return checkUtf8(m_name);
  }

  bool StartObject() { return begin(); }
  bool EndObject(rapidjson::SizeType /*members*/) { return end(JsonKind::Object); }
  bool StartArray() { return begin(); }
  bool EndArray(rapidjson::SizeType /*elements*/) { return end(JsonKind::Array); }

 private:
  struct Open {
    std::size_t start;
    std::string_view name;
  };

  bool begin() {
    if (m_open.size() == kMaxDepth) return fail("nested deeper than 100 levels");
    m_open.push_back({m_stream.Tell() - 1, std::exchange(m_name, {})});
    return true;
  }

  bool end(JsonKind kind) {
    const Open open = m_open.back();
    m_open.pop_back();
    m_name = open.name;
    return emit(kind, m_text.substr(open.start, m_stream.Tell() - open.start));
  }

  bool emit(JsonKind kind, std::string_view text, double real = 0) {
    m_visit({kind, m_open.size(), std::exchange(m_name, {}), text, real});
    return true;
  }

  // The reader accepts an escape for half a surrogate pair.
  bool checkUtf8(std::string_view string) { return IsUtf8(string) || fail("not a Unicode text"); }

  bool fail(const char* fault) {
    m_fault = fault;
    return false;
  }

  const std::string_view m_text;
  rapidjson::InsituStringStream& m_stream;
  const JsonVisitor& m_visit;
  std::vector<Open> m_open;
  std::string_view m_name;  // of the member whose value comes next
  const char* m_fault = "";
};

}  // namespace
}  // namespace Lumo

// Copies whole runs. RapidJSON's own copies one byte per call; its variant for SSE2 copies runs,
// but lets control characters from 0x1A on through.
template <>
struct rapidjson::Transcoder<Lumo::RunsOfUtf8, Lumo::RunsOfUtf8>
    : rapidjson::Transcoder<rapidjson::UTF8<>, rapidjson::UTF8<>> {
  using Transcoder<UTF8<>, UTF8<>>::Transcode;
  // `out` is `in`: the reader works in place. The next character is a plain one.
  static bool Transcode(rapidjson::InsituStringStream& in, rapidjson::InsituStringStream& out) {
    const std::size_t length = Lumo::plainLength(in.src_);
    if (out.dst_ != in.src_) std::memmove(out.dst_, in.src_, length);
    in.src_ += length;
    out.dst_ += length;
    return true;
  }
};

namespace Lumo {

std::string ReadJson(std::string_view text, const JsonVisitor& visit) {
  // The reader would take it for the end of the text.
  if (text.find('\0') != std::string_view::npos) return "not valid JSON: a NUL byte";

  std::string copy;
  copy.reserve(text.size() + kPadding);
  copy.append(text).append(kPadding, '\0');
  rapidjson::InsituStringStream stream(copy.data());
  Handler handler(text, stream, visit);
  rapidjson::GenericReader<RunsOfUtf8, RunsOfUtf8> reader;
  constexpr unsigned kFlags = rapidjson::kParseInsituFlag | rapidjson::kParseNumbersAsStringsFlag;
  const rapidjson::ParseResult result = reader.Parse<kFlags>(stream, handler);
  if (!result.IsError()) return {};
  if (!IsUtf8(text)) return "not UTF-8";
  if (result.Code() == rapidjson::kParseErrorTermination) return handler.Fault();
  if (result.Code() == rapidjson::kParseErrorNumberTooBig) return kNumberTooLarge;
  return "not valid JSON: byte " + std::to_string(result.Offset() + 1) + ": " +
         rapidjson::GetParseError_En(result.Code());
}

bool IsJson(std::string_view text) {
  return ReadJson(text, [](const JsonItem&) {}).empty();
}

void AppendJsonString(std::string& out, std::string_view text) {
  constexpr std::string_view kHexDigits = "0123456789abcdef";
  constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
  const auto isPlain = [](char character) {
    return character >= ' ' && character <= '~' && character != '"' && character != '\\';
  };
  out.reserve(out.size() + text.size() + 2);
  out.push_back('"');
  for (;;) {
    const auto* const next = std::find_if_not(text.begin(), text.end(), isPlain);
    const auto plainLength = static_cast<std::size_t>(next - text.begin());
    out.append(text.substr(0, plainLength));
    text.remove_prefix(plainLength);
    if (text.empty()) break;
    const auto first = static_cast<unsigned char>(text.front());
    std::size_t length = 1;
    if (first == '"' || first == '\\') {
      out.push_back('\\');
      out.push_back(text.front());
    } else if (first == '\n') {
      out.append("\\n");
    } else if (first < 0x20) {
      out.append("\\u00");
      out.push_back(kHexDigits[first >> 4]);
      out.push_back(kHexDigits[first & 0xF]);
    } else if (length = Utf8CharacterLength(text); length != 0) {
      out.append(text.substr(0, length));
    } else {
      length = 1;
      out.append(kReplacement);
    }
    text.remove_prefix(length);
  }
  out.push_back('"');
}

void AppendJsonNumber(std::string& out, double number) {
  if (!std::isfinite(number)) {
    out.append("null");
    return;
  }
  std::array<char, 32> buffer{};  // the longest is 24 characters
  const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number);
  const std::string_view digits(buffer.data(),
                                static_cast<std::size_t>(result.ptr - buffer.data()));
  out.append(digits);
  if (digits.find_first_of(".e") == std::string_view::npos) out.append(".0");
}

}  // namespace Lumo
