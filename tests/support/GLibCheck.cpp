#include "GLibCheck.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

namespace {

struct Messages {
  std::mutex mutex;
  std::vector<std::string> list;  // guarded by mutex
};

// Never destroyed: GLib's own threads may log while the process exits.
Messages& messages() {
  static Messages* const instance = std::make_unique<Messages>().release();
  return *instance;
}

GLogWriterOutput collect(GLogLevelFlags level, const GLogField* fields, gsize count,
                         gpointer /*userData*/) {
  if ((level & (G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_ERROR)) != 0) {
    std::string text;
    for (gsize i = 0; i < count; ++i) {
      const std::string_view key = fields[i].key;
      if (key != "GLIB_DOMAIN" && key != "MESSAGE") continue;
      text += std::string(text.empty() ? "" : ": ") + static_cast<const char*>(fields[i].value);
    }
    const std::lock_guard<std::mutex> lock(messages().mutex);
    messages().list.push_back(text);
  }
  return G_LOG_WRITER_HANDLED;
}

class FailOnMessage : public ::testing::EmptyTestEventListener {
 public:
  void OnTestEnd(const ::testing::TestInfo& /*info*/) override {
    for (const std::string& message : GLibCheck::TakeMessages()) {
      ADD_FAILURE() << "GLib logged: " << message;
    }
  }
};

}  // namespace

void GLibCheck::Install() {
  g_log_set_writer_func(collect, nullptr, nullptr);
  // googletest owns its listeners.
  ::testing::UnitTest::GetInstance()->listeners().Append(
      std::make_unique<FailOnMessage>().release());
}

std::vector<std::string> GLibCheck::TakeMessages() {
  const std::lock_guard<std::mutex> lock(messages().mutex);
  return std::exchange(messages().list, {});
}
