// What the header declares is what the library exports.
#pragma GCC visibility push(default)
#include "api/lumo_check.h"
#pragma GCC visibility pop

#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "settings/Settings.h"
#include "values/CatchAll.h"

namespace {

using namespace Lumo;

void give(std::string_view line, char* text, size_t size) {
  if (size == 0) return;
  // A setting may hold anything; the line is for a terminal.
  const auto end = line.substr(0, size - 1).copy(text, size - 1);
  for (char* at = text; at != text + end; ++at) {
    const auto byte = static_cast<unsigned char>(*at);
    if (byte < 0x20 || byte == 0x7F) *at = '?';
  }
  text[end] = '\0';
}

std::string addressOf(const BrokerSettings& broker) {
  const bool bracketed = broker.host.find(':') != std::string::npos;
  return std::string(broker.tls ? "mqtts://" : "mqtt://") + (bracketed ? "[" : "") + broker.host +
         (bracketed ? "]" : "") + ":" + std::to_string(broker.port);
}

}  // namespace

lumo_settings lumo_check_settings(char* text, size_t size) {
  lumo_settings result = LUMO_SETTINGS_WRONG;
  give("no memory", text, size);
  CatchAll(__func__, [&] {
    std::string line;
    const std::optional<Settings> settings = Settings::Read(std::getenv, line);
    if (settings) {
      const std::optional<BrokerSettings>& broker = settings->Broker();
      line = broker ? addressOf(*broker) + " as " + broker->thingId : kNothingGoesOut;
      result = broker ? LUMO_SETTINGS_ONLINE : LUMO_SETTINGS_OFFLINE;
    }
    give(line, text, size);
  });
  return result;
}
