// Log lines of the host and its plug-ins. Each starts with the source file's base name, the
// function and the line. The platform's log formats them.
#ifndef COMMON_LOG_H
#define COMMON_LOG_H

#include <dlog.h>

#include <string_view>

namespace ThingCommon {

inline constexpr int LOG_PRIORITY_DEBUG = 3;
inline constexpr int LOG_PRIORITY_INFO = 4;
inline constexpr int LOG_PRIORITY_ERROR = 6;

inline constexpr const char* LOG_TAG_COMMON = "THING_COMMON";
inline constexpr const char* LOG_TAG_PLUGIN = "TVCONTROL_A";

// The source line that a log line names. The strings are literals or __func__: they are not copied.
struct LogSite {
  const char* file;
  const char* function;
  int line;
};

// The part of `path` after its last slash. The result points into `path`.
constexpr const char* BaseName(const char* path) {
  const std::string_view view(path);
  const auto slash = view.rfind('/');
  return slash == std::string_view::npos ? path : path + slash + 1;
}

// Only for the compiler: it compares the format with the arguments.
// NOLINTNEXTLINE(cert-dcl50-cpp): nothing else can carry the attribute
[[gnu::format(printf, 1, 2)]] inline void CheckLogFormat(const char* /*format*/, ...) {}

// Use through LOG_LINE and LOG_LINE_AT, which have the compiler check `format`.
template <typename... Args>
void WriteLog(int priority, const char* tag, const LogSite& site, const char* format,
              Args... args) {
  dlog_print(priority, tag, format, site.file, site.function, site.line, args...);
}

// Logs "Entered" now and "Left" when the scope is left, by whatever way, both at info level and
// with the line of `site`.
class LogScope {
 public:
  LogScope(const char* tag, const LogSite& site) : m_tag(tag), m_site(site) {
    WriteLog(LOG_PRIORITY_INFO, m_tag, m_site, "%s : %s(%d) > Entered\n");
  }
  ~LogScope() { WriteLog(LOG_PRIORITY_INFO, m_tag, m_site, "%s : %s(%d) > Left\n"); }
  LogScope(const LogScope&) = delete;
  LogScope& operator=(const LogScope&) = delete;

 private:
  const char* m_tag;
  LogSite m_site;
};

}  // namespace ThingCommon

// A place in this file. Inside a lambda __func__ is "operator()": pass the operation's name.
#define LOG_SITE_AT(function, line)                       \
  ::ThingCommon::LogSite {                                \
    ::ThingCommon::BaseName(__FILE__), (function), (line) \
  }
#define LOG_SITE() LOG_SITE_AT(__func__, __LINE__)

// LOG_LINE_AT(priority, tag, site, literal format without the prefix, arguments...)
#define LOG_LINE_AT(priority, tag, site, ...)                                        \
  do {                                                                               \
    if (false) ::ThingCommon::CheckLogFormat(__VA_ARGS__);                           \
    ::ThingCommon::WriteLog((priority), (tag), (site), "%s : %s(%d)  " __VA_ARGS__); \
  } while (false)
#define LOG_LINE(priority, tag, ...) LOG_LINE_AT(priority, tag, LOG_SITE(), __VA_ARGS__)
// LOG_LINE at error and at info level: LOG_E(tag, literal format without the prefix, arguments...)
#define LOG_E(tag, ...) LOG_LINE(::ThingCommon::LOG_PRIORITY_ERROR, tag, __VA_ARGS__)
#define LOG_I(tag, ...) LOG_LINE(::ThingCommon::LOG_PRIORITY_INFO, tag, __VA_ARGS__)

#endif  // COMMON_LOG_H
