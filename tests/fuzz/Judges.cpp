#include "Judges.h"

#include <glib.h>
#include <mosquitto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstddef>

#include "JsonGrammar.h"
#include "Require.h"

namespace fuzz {

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

void RequirePayload(const std::string& payload) {
  if (!JudgeUtf8(payload) || !JudgeJson(payload).isJson) Break("a payload is JSON", Show(payload));
}

}  // namespace fuzz
