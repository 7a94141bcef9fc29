#include "JsonGrammar.h"

#include <algorithm>
#include <cctype>
#include <vector>

namespace fuzz {
namespace {

constexpr std::size_t kManyDigits = 300;

class Judge {
 public:
  explicit Judge(std::string_view text) : m_rest(text) {}

  JsonJudgement Run() {
    m_judgement.isJson = document();
    return m_judgement;
  }

 private:
  // Every function takes what it is named after off the text; false when it is not there.

  bool document() {
    if (!value()) return false;
    while (!m_open.empty()) {
      space();
      if (take(m_open.back() == '{' ? '}' : ']')) {
        m_open.pop_back();
      } else if (!take(',') || !memberOrElement()) {
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
    switch (m_rest.front()) {
      case '{':
      case '[':
        return begin();
      case '"':
        return string();
      case 't':
        return word("true");
      case 'f':
        return word("false");
      case 'n':
        return word("null");
      default:
        return number();
    }
  }

  bool begin() {
    const char open = m_rest.front();
    m_rest.remove_prefix(1);
    m_open.push_back(open);
    m_judgement.depth = std::max(m_judgement.depth, m_open.size());
    space();
    if (!m_rest.empty() && m_rest.front() == (open == '{' ? '}' : ']')) return true;
    return memberOrElement();
  }

  bool memberOrElement() {
    if (m_open.back() == '[') return value();
    space();
    if (!string()) return false;
    space();
    return take(':') && value();
  }

  bool string() {
    if (!take('"')) return false;
    while (!m_rest.empty()) {
      const auto byte = static_cast<unsigned char>(m_rest.front());
      m_rest.remove_prefix(1);
      if (byte == '"') return true;
      if (byte < 0x20) return false;
      if (byte == '\\' && !escape()) return false;
    }
    return false;
  }

  bool escape() {
    if (m_rest.empty()) return false;
    const char kind = m_rest.front();
    m_rest.remove_prefix(1);
    if (kind != 'u') return std::string_view("\"\\/bfnrt").find(kind) != std::string_view::npos;
    const std::string_view code = m_rest.substr(0, 4);
    const bool isCode = code.size() == 4 && std::all_of(code.begin(), code.end(), [](char c) {
                          return std::isxdigit(static_cast<unsigned char>(c)) != 0;
                        });
    if (!isCode) return false;
    if ((code[0] == 'd' || code[0] == 'D') && code[1] >= '8') m_judgement.hasSurrogateEscape = true;
    m_rest.remove_prefix(4);
    return true;
  }

  bool number() {
    const std::size_t length = m_rest.size();
    take('-');
    if (!take('0') && !digits()) return false;
    if (take('.') && !digits()) return false;
    if (take('e') || take('E')) {
      m_judgement.hasLargeNumber = true;
      if (!take('+')) take('-');
      if (!digits()) return false;
    }
    if (length - m_rest.size() > kManyDigits) m_judgement.hasLargeNumber = true;
    return true;
  }

  bool digits() {
    const std::size_t end = std::min(m_rest.find_first_not_of("0123456789"), m_rest.size());
    m_rest.remove_prefix(end);
    return end > 0;
  }

  bool word(std::string_view expected) {
    if (m_rest.substr(0, expected.size()) != expected) return false;
    m_rest.remove_prefix(expected.size());
    return true;
  }

  bool take(char character) {
    if (m_rest.empty() || m_rest.front() != character) return false;
    m_rest.remove_prefix(1);
    return true;
  }

  void space() {
    m_rest.remove_prefix(std::min(m_rest.find_first_not_of(" \t\n\r"), m_rest.size()));
  }

  std::string_view m_rest;
  std::vector<char> m_open;  // '{' and '['
  JsonJudgement m_judgement;
};

}  // namespace

JsonJudgement JudgeJson(std::string_view text) {
  return Judge(text).Run();
}

}  // namespace fuzz
