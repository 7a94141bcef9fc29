#ifndef TESTS_FUZZ_INPUT_H
#define TESTS_FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace fuzz {

// An input of a fuzz target as text: letters, fields that end with a blank, lines. Seeds can be
// read and written by people, and a piece that the fuzzer puts in or takes out leaves the rest of
// the input what it was. Any byte after 0x10 stands for itself, also where it would end a field.
//
// What the input does not have is empty or 0: reading never fails.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size);

  bool AtEnd() const { return m_rest.empty(); }

  // The next byte; 0 at the end.
  char Letter();
  // The next byte as a number below `count`: '0' is 0.
  std::size_t Choice(std::size_t count);

  // Up to the next blank or line feed. A blank is taken as well, so that the next field follows; a
  // line feed stays, so that further fields of the line are empty.
  std::string Field();
  // A field as a decimal number, 0 when it is none.
  int Number();
  // Up to the end of the line, which is taken.
  std::string Line();
  std::string_view Rest() const { return m_rest; }

 private:
  std::string textUntil(std::string_view ends);

  std::string_view m_rest;
};

// Bytes with nothing around them, so that a read beyond them is seen.
class ExactBytes {
 public:
  explicit ExactBytes(std::string_view bytes)
      : m_bytes(std::make_unique<char[]>(bytes.size())), m_size(bytes.size()) {
    std::copy(bytes.begin(), bytes.end(), m_bytes.get());
  }
  std::string_view View() const { return {m_bytes.get(), m_size}; }

 private:
  std::unique_ptr<char[]> m_bytes;
  std::size_t m_size;
};

// What letters do to a world.
template <typename World>
using Steps = std::map<char, void (*)(World& world, Input& input)>;

// False: the letter is none of these.
template <typename World>
bool Perform(const Steps<World>& steps, char letter, World& world, Input& input) {
  const auto found = steps.find(letter);
  if (found != steps.end()) found->second(world, input);
  return found != steps.end();
}

}  // namespace fuzz

#endif  // TESTS_FUZZ_INPUT_H
