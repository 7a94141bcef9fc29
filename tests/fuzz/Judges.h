#ifndef TESTS_FUZZ_JUDGES_H
#define TESTS_FUZZ_JUDGES_H

#include <string>
#include <string_view>

// What other libraries take for what, to be compared with.
namespace fuzz {

// GLib.
bool JudgeUtf8(std::string_view text);

// OpenSSL: the text for any bytes.
std::string WriteBase64(std::string_view bytes);

// libmosquitto: whether it can be published to.
bool JudgeTopic(const std::string& topic);

// Every payload that goes out is JSON.
void RequirePayload(const std::string& payload);

}  // namespace fuzz

#endif  // TESTS_FUZZ_JUDGES_H
