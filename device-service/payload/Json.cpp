#include "payload/Json.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <memory>
#include <utility>

#include "values/Utf8.h"

namespace Lumo {
namespace {

constexpr int kMaxDepth = 100;

// The reader quotes what it takes for a number. Whoever sent that knows it, and a log must not.
std::string withoutNumbers(std::string messages) {
  constexpr std::string_view kAfterNumber = "' is not a number";
  constexpr std::string_view kInstead = "what stands there";
  std::size_t end = messages.find(kAfterNumber);
  while (end != std::string::npos && end > 0) {
    const std::size_t start = std::min(messages.rfind('\'', end - 1), end);
    messages.replace(start, end + 1 - start, kInstead);
    end = messages.find(kAfterNumber, start);
  }
  return messages;
}

// The reader's messages as one short line.
std::string toOneLine(const std::string& messages) {
  std::string line;
  bool space = false;
  for (const char character : messages) {
    if (character == '\n' || character == '*' || character == ' ') {
      space = true;
      continue;
    }
    if (space && !line.empty()) line.push_back(' ');
    space = false;
    line.push_back(character);
  }
  return "not valid JSON: " + Abbreviate(line);
}

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

// Takes digits off the text; false when there are none.
bool takeDigits(std::string_view& text) {
  const std::size_t end = std::min(text.find_first_not_of("0123456789"), text.size());
  text.remove_prefix(end);
  return end > 0;
}

bool takeOneOf(std::string_view& text, std::string_view characters) {
  if (text.empty() || characters.find(text.front()) == std::string_view::npos) return false;
  text.remove_prefix(1);
  return true;
}

bool isNumber(std::string_view text) {
  takeOneOf(text, "-");
  if (takeOneOf(text, "0")) {
    if (!text.empty() && isDigit(text.front())) return false;
  } else if (!takeDigits(text)) {
    return false;
  }
  if (takeOneOf(text, ".") && !takeDigits(text)) return false;
  if (takeOneOf(text, "eE")) {
    takeOneOf(text, "+-");
    if (!takeDigits(text)) return false;
  }
  return text.empty();
}

// The reader takes numbers like 01, +1, 1. and -, control characters in strings, and a comma behind
// the last member of an object when that member's name is empty. True when there are none in the
// text, which the reader has accepted.
bool isStrict(std::string_view text) {
  constexpr std::string_view kOfNumbers = "+-.0123456789eE";
  while (!text.empty()) {
    const char first = text.front();
    if (first == '"') {
      std::size_t end = 1;
      for (; text[end] != '"'; ++end) {
        if (static_cast<unsigned char>(text[end]) < 0x20) return false;
        if (text[end] == '\\') ++end;
      }
      text.remove_prefix(end + 1);
    } else if (isDigit(first) || first == '-' || first == '+') {
      const std::size_t end = std::min(text.find_first_not_of(kOfNumbers), text.size());
      if (!isNumber(text.substr(0, end))) return false;
      text.remove_prefix(end);
    } else if (first == ',') {
      text.remove_prefix(std::min(text.find_first_not_of(" \t\n\r", 1), text.size()));
      if (text.empty() || text.front() == '}') return false;
    } else {
      text.remove_prefix(1);
    }
  }
  return true;
}

}  // namespace

JsonReader::JsonReader() {
  Json::CharReaderBuilder::strictMode(&m_builder.settings_);
  m_builder["rejectDupKeys"] = false;
  m_builder["strictRoot"] = false;  // a single value is a document, too
  m_builder["skipBom"] = false;     // it would shift the offsets of values
  m_builder["stackLimit"] = kMaxDepth;
}

std::optional<Json::Value> JsonReader::Read(std::string_view text, std::string* error) const {
  const auto fail = [error](std::string what) {
    if (error != nullptr) *error = std::move(what);
    return std::nullopt;
  };
  if (!IsUtf8(text)) return fail("not UTF-8");
  // The reader takes it for the end of the document.
  if (text.find('\0') != std::string_view::npos) return fail("not valid JSON: a NUL byte");

  const std::unique_ptr<Json::CharReader> reader(m_builder.newCharReader());
  Json::Value value;
  std::string messages;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &messages)) {
      return fail(toOneLine(withoutNumbers(messages)));
    }
  } catch (const Json::Exception&) {
    return fail("nested deeper than " + std::to_string(kMaxDepth) + " levels");
  }
  if (!isStrict(text)) return fail("not valid JSON: a number, a comma or a control character");
  return value;
}

std::optional<Json::Value> ParseJson(std::string_view text, std::string* error) {
  return JsonReader().Read(text, error);
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
