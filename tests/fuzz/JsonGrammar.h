#ifndef TESTS_FUZZ_JSONGRAMMAR_H
#define TESTS_FUZZ_JSONGRAMMAR_H

#include <cstddef>
#include <string_view>

namespace fuzz {

// What the grammar of RFC 8259 says of a text, byte by byte: whether it is UTF-8 is another
// question. Written for nothing but to be compared with.
struct JsonJudgement {
  bool isJson = false;
  std::size_t depth = 0;            // of arrays and objects in each other
  bool hasSurrogateEscape = false;  // \ud800 to \udfff, which may stand for no character
  bool hasLargeNumber = false;      // of many digits or with an exponent: it may be out of range
};
JsonJudgement JudgeJson(std::string_view text);

}  // namespace fuzz

#endif  // TESTS_FUZZ_JSONGRAMMAR_H
