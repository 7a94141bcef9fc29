#include "LinkHealth.h"

#include <glib.h>

#include <array>
#include <cstring>
#include <memory>

#include "GLibHandle.h"

namespace QivoThing {
namespace {

using DateTimePtr = std::unique_ptr<GDateTime, GLibDeleter<g_date_time_unref>>;
using TextPtr = std::unique_ptr<gchar, GLibDeleter<g_free>>;

// As the journal shows it: in the system's time zone.
std::string timeOf(std::int64_t seconds) {
  const DateTimePtr time(g_date_time_new_from_unix_local(seconds));
  const TextPtr text(time ? g_date_time_format(time.get(), "%F %T") : nullptr);
  return text ? text.get() : "?";
}

std::string count(std::uint32_t number, const std::string& what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

std::string describeLink(const lumo_health& health, const std::string& settings) {
  const std::string reason(health.reason, strnlen(health.reason, sizeof health.reason));
  switch (health.link) {
    case LUMO_LINK_ONLINE:
      return "online at " + settings + (reason.empty() ? "" : " (" + reason + ")");
    case LUMO_LINK_OFFLINE:
      break;
    case LUMO_LINK_NONE:
    default:
      return settings;
  }
  if (reason.empty()) return "connecting to " + settings;
  return "offline since " + timeOf(health.since) + " (" + reason + "): " + settings;
}

}  // namespace

std::string Describe(const lumo_health& health, const std::string& settings,
                     std::uint32_t ownProperties) {
  const std::uint32_t applications =
      health.properties > ownProperties ? health.properties - ownProperties : 0;
  return describeLink(health, settings) + ", " + count(applications, "application") + ", " +
         count(health.waiting_requests, "request") + " waiting";
}

}  // namespace QivoThing
