#ifndef TESTS_FUZZ_JUDGES_H
#define TESTS_FUZZ_JUDGES_H

#include <cstddef>
#include <string>
#include <string_view>

// What other libraries take for what, to be compared with. Linked with them comes a platform log,
// which formats every line, so that a wrong argument is seen, and writes it nowhere.
namespace fuzz {

// GLib.
bool JudgeUtf8(std::string_view text);

// OpenSSL: the Base64 of any bytes.
std::string WriteBase64(std::string_view bytes);

// libmosquitto: whether it can be published to.
bool JudgeTopic(const std::string& topic);

// What the grammar of RFC 8259 says, byte by byte: whether it is UTF-8 is another question. Written
// for nothing but to be compared with.
struct JsonJudgement {
  bool isJson = false;
  std::size_t depth = 0;            // of arrays and objects in each other
  bool hasSurrogateEscape = false;  // \ud800 to \udfff, which may stand for no character
  bool hasLargeNumber = false;      // of many digits or with an exponent: it may be out of range
};
JsonJudgement JudgeJson(std::string_view text);

// Every payload that goes out is JSON.
void RequirePayload(const std::string& payload);

}  // namespace fuzz

#endif  // TESTS_FUZZ_JUDGES_H
