// The stand-ins for the settings store and the log: keys, and formats with what they take.
//
// The input is lines. The store:
//   w KEY NUMBER   a setting is written; k KEY: read
//   t KEY TEXT     any text is written
//   l NAME         somebody puts a link that leads out of the folder
// The log:
//   p PRIORITY TAG   of the lines that follow
//   s TEXT, c NUMBER TEXT   a text, whole or its first bytes
//   n NUMBER, e NUMBER, u NUMBER   a number, an error's name, a character of that number
//   r NUMBER TEXT    a text as often as that
//   f TEXT           a format without arguments
//   q FILE NUMBER TEXT   a line as the plug-in writes it
//   v LEVEL          the level is read from the environment
#include <sys/uio.h>

#include <cerrno>
#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "Input.h"
#include "Require.h"
#include "SettingsFolder.h"
#include "Target.h"
#include "vconf.h"

// As a part of this file: it reads its environment once, and here that is done many times.
#include "dlog.cpp"

namespace {

namespace fs = std::filesystem;

using fuzz::Break;
using fuzz::Input;
using fuzz::Require;
using fuzz::RequireEqual;

constexpr std::size_t kMaxSteps = 100;

// --- the settings store --------------------------------------------------------------------------

// A folder for the store, and another one beside it that nothing may change.
class Sandbox {
 public:
  static Sandbox& Get() {
    static Sandbox sandbox;
    return sandbox;
  }

  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;
  ~Sandbox() { fs::remove_all(m_folder); }

  fs::path Settings() const { return m_folder / "settings"; }
  fs::path Outside() const { return m_folder / "outside"; }

  void Clear() const {
    fs::remove_all(Settings());
    fs::create_directory(Settings());
  }

  void RequireUntouched() const {
    const auto count = [](const fs::path& folder) {
      return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
    };
    Require(count(m_folder) == 2 && fs::is_empty(Outside()), "nothing leaves the store's folder");
  }

 private:
  Sandbox() {
    // In memory, as the store is on a device.
    const fs::path memory = "/dev/shm";
    const fs::path parent = fs::is_directory(memory) ? memory : fs::temp_directory_path();
    std::string name = (parent / "fuzz-stand-ins-XXXXXX").string();
    Require(mkdtemp(name.data()) != nullptr, "a temporary folder can be made");
    m_folder = name;
    fs::create_directory(Outside());
    setenv("VCONF_DIR", Settings().c_str(), 1);
  }

  fs::path m_folder;
};

// What the store must hold.
class Store {
 public:
  bool Write(const std::string& key, const std::string& text) {
    const std::vector<std::string> names = split(key);
    if (!isValid(names)) return false;
    std::string path;
    for (std::size_t i = 0; i + 1 < names.size(); ++i) {
      path += (i > 0 ? "/" : "") + names[i];
      if (m_texts.count(path) != 0 || m_links.count(path) != 0) return false;
    }
    if (m_folders.count(key) != 0) return false;
    for (path = key; path.find('/') != std::string::npos;) {
      path.resize(path.rfind('/'));
      m_folders.insert(path);
    }
    m_links.erase(key);
    m_texts[key] = text;
    return true;
  }

  std::optional<std::string> Read(const std::string& key) const {
    const auto found = m_texts.find(key);
    return found == m_texts.end() ? std::nullopt : std::optional<std::string>(found->second);
  }

  // False when there is something of that name.
  bool AddLink(const std::string& name) {
    if (name.find('/') != std::string::npos || !isValid({name})) return false;
    if (m_texts.count(name) != 0 || m_folders.count(name) != 0) return false;
    return m_links.insert(name).second;
  }

  // Compares with the folder.
  void Check(const fs::path& folder) const {
    std::map<std::string, std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
      if (entry.is_symlink() || entry.is_directory()) continue;
      std::ifstream file(entry.path(), std::ios::binary);
      found[fs::relative(entry.path(), folder).string()] =
          std::string(std::istreambuf_iterator<char>(file), {});
    }
    RequireEqual(found, m_texts, "the store holds what was written, and nothing else");
  }

 private:
  static std::vector<std::string> split(const std::string& key) {
    std::vector<std::string> names(1);
    for (const char character : key) {
      if (character == '/') {
        names.emplace_back();
      } else {
        names.back().push_back(character);
      }
    }
    return names;
  }

  static bool isValid(const std::vector<std::string>& names) {
    return std::none_of(names.begin(), names.end(), [](const std::string& name) {
      return name.empty() || name == "." || name == ".." || name.size() > 255;
    });
  }

  std::map<std::string, std::string> m_texts;
  std::set<std::string> m_folders;
  std::set<std::string> m_links;
};

// --- the log -------------------------------------------------------------------------------------

// What was written to standard error by the call that is looked at.
struct Capture {
  bool active = false;
  std::size_t writes = 0;
  std::string text;
};
Capture capture;

std::string show(std::string_view message) {
  std::string shown;
  for (std::size_t i = 0; i < message.size(); ++i) {
    const auto byte = static_cast<unsigned char>(message[i]);
    const auto next = static_cast<unsigned char>(i + 1 < message.size() ? message[i + 1] : 0);
    const auto appendCode = [&shown](unsigned code) {
      std::array<char, 8> text{};
      std::snprintf(text.data(), text.size(), "\\x%02x", code);
      shown += text.data();
    };
    if (byte == '\n' || byte == '\r') {
      shown += byte == '\n' ? "\\n" : "\\r";
    } else if ((byte < 0x20 && byte != '\t') || byte == 0x7F) {
      appendCode(byte);
    } else if (byte == 0xC2 && next >= 0x80 && next < 0xA0) {
      appendCode(byte);
      appendCode(next);
      ++i;
    } else {
      shown.push_back(message[i]);
    }
  }
  return shown;
}

// Calls the log in several ways, and compares the line with what printf makes of the same.
class Log {
 public:
  void SetUp(int priority, const std::string& tag) {
    m_priority = priority;
    m_tag = tag;
  }

  // Through a pointer, as the formats of a fuzzer are no literals.
  template <typename... Args>
  void Print(const std::string& format, Args... args) const {
    int (*const print)(int, const char*, const char*, ...) = &dlog_print;
    int (*const makeText)(char*, std::size_t, const char*, ...) = &std::snprintf;

    const int number = errno;
    const int size = makeText(nullptr, 0, format.c_str(), args...);
    std::string message = "(a message that cannot be formatted)";
    if (size >= 0) {
      message.resize(static_cast<std::size_t>(size) + 1);
      errno = number;
      makeText(message.data(), message.size(), format.c_str(), args...);
      message.pop_back();
    }
    message.resize(message.find_last_not_of('\n') + 1);

    capture = {true, 0, ""};
    errno = number;
    const int result = print(m_priority, m_tag.c_str(), format.c_str(), args...);
    capture.active = false;
    RequireEqual(errno, number, "errno is left alone");
    check(message, result);
  }

 private:
  void check(const std::string& message, int result) const {
    if (m_priority < 2) {  // less than verbose
      RequireEqual(capture.text, std::string(), "what is below the level is not written");
      RequireEqual(result, 0, "what is below the level is not written");
      return;
    }
    RequireEqual<std::size_t>(capture.writes, 1, "a line is one write");
    RequireEqual(result, static_cast<int>(capture.text.size()), "the log says how much it wrote");
    constexpr std::size_t kTimeLength = 24;  // with the blank
    Require(capture.text.size() > kTimeLength && capture.text[10] == ' ' &&
                capture.text[19] == '.' && capture.text[23] == ' ',
            "a line begins with the time");
    const std::string letter = m_priority <= 7 ? std::string(1, "VDIWEF"[m_priority - 2]) : "?";
    checkMessage(letter + " " + m_tag + ": " + message, capture.text.substr(kTimeLength),
                 kMaxLineBytes - kTimeLength);
  }

  static void checkMessage(const std::string& message, const std::string& line, std::size_t room) {
    const std::string whole = show(message) + "\n";
    Require(line.size() <= room, "a line is not longer than 4 KiB");
    if (whole.size() <= room) {
      RequireEqual(line, whole, "a line is its message, on one line");
      return;
    }
    const std::string mark = "… [cut: ";
    const std::size_t at = line.rfind(mark);
    Require(at != std::string::npos, "a line that is cut says so");
    const std::size_t missing = std::stoul(line.substr(at + mark.size()));
    Require(missing <= message.size(), "a line that is cut says how much of it is missing");
    RequireEqual(line,
                 show(message.substr(0, message.size() - missing)) + mark +
                     std::to_string(missing) + " bytes]\n",
                 "a line that is cut shows the beginning of its message");
  }

  int m_priority = 6;
  std::string m_tag = "TAG";
};

void checkLevel(const std::string& level) {
  setenv("DLOG_LEVEL", level.c_str(), 1);
  const Settings settings = readSettings();
  setenv("DLOG_LEVEL", "verbose", 1);
  std::string lower;
  for (const char character : level) {
    lower.push_back(character >= 'A' && character <= 'Z' ? static_cast<char>(character + 32)
                                                         : character);
  }
  RequireEqual(settings.silent, lower == "none", "nothing is printed at none");
  int expected = 4;
  const std::array<const char*, 6> names = {"verbose", "debug", "info", "warn", "error", "fatal"};
  for (int i = 0; i < 6; ++i) {
    const std::string name = names[static_cast<std::size_t>(i)];
    if (lower == name || lower == name.substr(0, 1) || lower == std::to_string(i + 2)) {
      expected = i + 2;
    }
  }
  RequireEqual(settings.lowest, expected, "a level is a name, a letter or a number");
}

// --- both ----------------------------------------------------------------------------------------

class Run {
 public:
  explicit Run(Input& input) : m_input(input) {}

  void Steps() {
    for (std::size_t step = 0; step < kMaxSteps && !m_input.AtEnd(); ++step) {
      const char letter = m_input.Letter();
      if (letter == '\n') continue;
      m_input.Field();  // of the letter
      if (!useStore(letter)) useLog(letter);
    }
    if (!m_usesStore) return;
    m_store.Check(m_sandbox.Settings());
    m_sandbox.RequireUntouched();
    m_sandbox.Clear();
  }

 private:
  // The C interface's texts end at the NUL.
  std::string takeKey() { return m_input.Field().c_str(); }

  bool useStore(char letter) {
    switch (letter) {
      case 'w': {
        const std::string key = takeKey();
        const int number = m_input.Number();
        RequireEqual(vconf_set_int(key.c_str(), number) == 0,
                     m_store.Write(key, std::to_string(number) + "\n"),
                     "a setting is written where it can be");
        break;
      }
      case 't': {
        const std::string key = takeKey();
        const std::string text = m_input.Line();
        RequireEqual(SettingsFolder::FromEnvironment().Write(key, text), m_store.Write(key, text),
                     "a text is written where it can be");
        break;
      }
      case 'k': {
        const std::string key = takeKey();
        const std::optional<std::string> text = SettingsFolder::FromEnvironment().Read(key);
        const std::optional<std::string> expected = m_store.Read(key);
        constexpr std::size_t kMaxReadBytes = 4096;
        if (!expected || expected->size() <= kMaxReadBytes) {
          RequireEqual(text, expected, "what was written is read");
        }
        break;
      }
      case 'l': {
        const std::string name = takeKey();
        if (m_store.AddLink(name)) {
          fs::create_directory_symlink(m_sandbox.Outside(), m_sandbox.Settings() / name);
        }
        break;
      }
      default:
        return false;
    }
    m_usesStore = true;
    return true;
  }

  void useLog(char letter) {
    switch (letter) {
      case 'p': {
        const int priority = m_input.Number();
        m_log.SetUp(priority, m_input.Line().c_str());
        return;
      }
      case 's':
        m_log.Print("[%s] text\n", m_input.Line().c_str());
        return;
      case 'c': {
        const int length = m_input.Number();
        m_log.Print("%.*s|%-8s", length, "a text that is long enough", m_input.Line().c_str());
        return;
      }
      case 'n': {
        const int number = m_input.Number();
        m_log.Print("%d %u %x %5d %-5d| %ld %zu %p %g %%", number, static_cast<unsigned>(number),
                    static_cast<unsigned>(number), number, number, static_cast<long>(number),
                    static_cast<std::size_t>(number), static_cast<void*>(this), number / 3.0);
        return;
      }
      case 'e':
        errno = m_input.Number();
        m_log.Print("%m\n\n");
        return;
      case 'u':
        m_log.Print("%lc\n", static_cast<std::wint_t>(m_input.Number()));
        return;
      case 'r': {
        const auto count = static_cast<unsigned>(m_input.Number()) % 10'000U;
        const std::string text = m_input.Line().c_str();
        std::string repeated;
        for (unsigned i = 0; i < count && !text.empty(); ++i) repeated += text;
        m_log.Print("%s|", repeated.c_str());
        return;
      }
      case 'f':
        m_log.Print(withoutConversions(m_input.Line()));
        return;
      case 'q': {
        const std::string file = m_input.Field();
        const int line = m_input.Number();
        m_log.Print("%s : %s(%d)  [%s] data: %s", file.c_str(), "SendSetRequest", line,
                    file.c_str(), m_input.Line().c_str());
        return;
      }
      case 'v':
        checkLevel(m_input.Line().c_str());
        return;
      default:
        return;
    }
  }

  static std::string withoutConversions(const std::string& text) {
    std::string format;
    for (const char character : text) format.append(character == '%' ? 2 : 1, character);
    return format;
  }

  Input& m_input;
  const Sandbox& m_sandbox = Sandbox::Get();
  Store m_store;
  Log m_log;
  bool m_usesStore = false;
};

bool start() {
  setenv("DLOG_LEVEL", "verbose", 1);
  Sandbox::Get().Clear();
  return true;
}

}  // namespace

// In the place of pwritev2(), for all of this program; of files of 64 bits.
extern "C" ssize_t __real_pwritev64v2(int descriptor, const iovec* parts, int count, off_t offset,
                                      int flags);
extern "C" ssize_t __wrap_pwritev64v2(int descriptor, const iovec* parts, int count, off_t offset,
                                      int flags) {
  if (!capture.active || descriptor != STDERR_FILENO) {
    return __real_pwritev64v2(descriptor, parts, count, offset, flags);
  }
  ++capture.writes;
  const std::size_t before = capture.text.size();
  for (int i = 0; i < count; ++i) {
    capture.text.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
  }
  return static_cast<ssize_t>(capture.text.size() - before);
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool started = start();
  Input input(data, size);
  Run(input).Steps();
  return 0;
}
