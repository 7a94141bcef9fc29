#include "Judges.h"

#include <dlog.h>
#include <glib.h>
#include <mosquitto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "Require.h"

namespace fuzz {
namespace {

// Each function takes what it is named after off the front; false when it is not there.
class JsonGrammar {
 public:
  explicit JsonGrammar(std::string_view text) : m_rest(text) {}

  JsonJudgement Judge() {
    m_judgement.isJson = document();
    return m_judgement;
  }

 private:
  bool document() {
    if (!value()) return false;
    while (!m_open.empty()) {
      space();
      if (take(closing())) {
        m_open.pop_back();
      } else if (!take(",") || !memberOrElement()) {
        return false;
      }
    }
    space();
    return m_rest.empty();
  }

  // Of an array or object only the begin, up to its first value; the rest is left to document.
  bool value() {
    space();
    if (m_rest.empty()) return false;
    const char first = m_rest.front();
    if (first == '"') return string();
    if (first != '{' && first != '[') {
      return take("true") || take("false") || take("null") || number();
    }
    m_open.push_back(next());
    m_judgement.depth = std::max(m_judgement.depth, m_open.size());
    space();
    return m_rest.substr(0, 1) == closing() || memberOrElement();
  }

  bool memberOrElement() {
    if (m_open.back() == '[') return value();
    space();
    if (!string()) return false;
    space();
    return take(":") && value();
  }

  bool string() {
    if (!take("\"")) return false;
    for (char c = next(); c != '"'; c = next()) {
      if (static_cast<unsigned char>(c) < 0x20 || (c == '\\' && !escape())) return false;
    }
    return true;
  }

  bool escape() {
    const char kind = next();
    if (kind != 'u') return std::string_view("\"\\/bfnrt").find(kind) != std::string_view::npos;
    const std::string_view code = m_rest.substr(0, 4);
    if (code.size() < 4 || code.find_first_not_of("0123456789abcdefABCDEF") < 4) return false;
    if ((code[0] == 'd' || code[0] == 'D') && code[1] >= '8') m_judgement.hasSurrogateEscape = true;
    m_rest.remove_prefix(4);
    return true;
  }

  bool number() {
    constexpr std::size_t kManyDigits = 300;
    const std::size_t length = m_rest.size();
    take("-");
    if (!take("0") && !digits()) return false;
    if (take(".") && !digits()) return false;
    if (take("e") || take("E")) {
      m_judgement.hasLargeNumber = true;
      if (!take("+")) take("-");
      if (!digits()) return false;
    }
    if (length - m_rest.size() > kManyDigits) m_judgement.hasLargeNumber = true;
    return true;
  }

  bool digits() { return skip("0123456789") > 0; }
  void space() { skip(" \t\n\r"); }

  std::size_t skip(std::string_view characters) {
    const std::size_t end = std::min(m_rest.find_first_not_of(characters), m_rest.size());
    m_rest.remove_prefix(end);
    return end;
  }

  bool take(std::string_view word) {
    if (m_rest.substr(0, word.size()) != word) return false;
    m_rest.remove_prefix(word.size());
    return true;
  }

  // NUL at the end, where none may stand.
  char next() {
    if (m_rest.empty()) return '\0';
    const char first = m_rest.front();
    m_rest.remove_prefix(1);
    return first;
  }

  std::string_view closing() const { return m_open.back() == '{' ? "}" : "]"; }

  std::string_view m_rest;
  std::vector<char> m_open;  // '{' and '['
  JsonJudgement m_judgement;
};

}  // namespace

bool JudgeUtf8(std::string_view text) {
  // NUL is no character to GLib.
  while (true) {
    const std::size_t nul = std::min(text.find('\0'), text.size());
    if (!g_utf8_validate_len(text.data(), nul, nullptr)) return false;
    if (nul == text.size()) return true;
    text.remove_prefix(nul + 1);
  }
}

std::string WriteBase64(std::string_view bytes) {
  // With room for a NUL.
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

bool JudgeTopic(const std::string& topic) {
  return !topic.empty() && topic.find('\0') == std::string::npos &&
         mosquitto_pub_topic_check2(topic.data(), topic.size()) == MOSQ_ERR_SUCCESS &&
         mosquitto_validate_utf8(topic.data(), static_cast<int>(topic.size())) == MOSQ_ERR_SUCCESS;
}

JsonJudgement JudgeJson(std::string_view text) {
  return JsonGrammar(text).Judge();
}

void RequirePayload(const std::string& payload) {
  if (!JudgeUtf8(payload) || !JudgeJson(payload).isJson) Break("a payload is JSON", Show(payload));
}

}  // namespace fuzz

extern "C" [[gnu::format(printf, 3, 4)]] int dlog_print(int /*priority*/, const char* /*tag*/,
                                                        const char* format, ...) {
  std::array<char, 2048> line{};
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  fuzz::Require(length > 0, "a log line can be formatted");
  return 0;
}
