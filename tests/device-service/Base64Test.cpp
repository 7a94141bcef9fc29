#include "payload/Base64.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Lumo::DecodeBase64;
using Lumo::EncodeBase64;

TEST(Base64Test, KnowsTheUsualExamples) {
  const char* const examples[][2] = {{"", ""},
                                     {"f", "Zg=="},
                                     {"fo", "Zm8="},
                                     {"foo", "Zm9v"},
                                     {"foob", "Zm9vYg=="},
                                     {"fooba", "Zm9vYmE="},
                                     {"foobar", "Zm9vYmFy"},
                                     {"\xFB\xFF\xFE", "+//+"}};
  for (const auto& [bytes, text] : examples) {
    EXPECT_EQ(EncodeBase64(bytes), text);
    EXPECT_EQ(DecodeBase64(text), bytes);
  }
}

TEST(Base64Test, GivesAllBytesBack) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes.push_back(static_cast<char>(byte));
  for (std::size_t length = 0; length <= bytes.size(); ++length) {
    const std::string part = bytes.substr(bytes.size() - length);
    EXPECT_EQ(DecodeBase64(EncodeBase64(part)), part);
  }
}

TEST(Base64Test, RefusesEverythingElse) {
  for (const char* text :
       {"Z", "Zg", "Zg=", "Zg===", "=", "====", "Z===", "Zg==Zg==", "Z=g=", "Zm9v\n", "Zm 9",
        "Zm-_", "Zh==", "Zm9=", "Zm9vZ", "\xC3\xA9==", "Zg==\n"}) {
    EXPECT_FALSE(DecodeBase64(text)) << text;
  }
  EXPECT_FALSE(DecodeBase64(std::string("Zg=\0", 4)));
}

}  // namespace
