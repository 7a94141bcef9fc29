#include "Input.h"

#include <charconv>
#include <system_error>

namespace fuzz {
namespace {

constexpr char kEscape = '\x10';

}  // namespace

Input::Input(const std::uint8_t* data, std::size_t size)
    : m_rest(reinterpret_cast<const char*>(data), size) {}

char Input::Letter() {
  if (m_rest.empty()) return '\0';
  const char letter = m_rest.front();
  m_rest.remove_prefix(1);
  return letter;
}

std::size_t Input::Choice(std::size_t count) {
  return static_cast<unsigned char>(Letter() - '0') % count;
}

std::string Input::Field() {
  std::string field = textUntil(" \n");
  if (!m_rest.empty() && m_rest.front() == ' ') m_rest.remove_prefix(1);
  return field;
}

int Input::Number() {
  const std::string field = Field();
  int number = 0;
  const char* const end = field.data() + field.size();
  const auto [stop, error] = std::from_chars(field.data(), end, number);
  return error == std::errc() && stop == end ? number : 0;
}

std::string Input::Line() {
  std::string line = textUntil("\n");
  if (!m_rest.empty()) m_rest.remove_prefix(1);
  return line;
}

std::string Input::textUntil(std::string_view ends) {
  std::string text;
  while (!m_rest.empty() && ends.find(m_rest.front()) == std::string_view::npos) {
    if (m_rest.front() == kEscape && m_rest.size() > 1) m_rest.remove_prefix(1);
    text.push_back(m_rest.front());
    m_rest.remove_prefix(1);
  }
  return text;
}

}  // namespace fuzz
