#include "Certificates.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

// What a child does with its descriptors before it starts.
class FileActions {
 public:
  explicit FileActions(const std::string& output) {
    constexpr mode_t kMode = 0600;
    posix_spawn_file_actions_init(&m_actions);
    posix_spawn_file_actions_addopen(&m_actions, STDOUT_FILENO, output.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, kMode);
    posix_spawn_file_actions_adddup2(&m_actions, STDOUT_FILENO, STDERR_FILENO);
  }
  ~FileActions() { posix_spawn_file_actions_destroy(&m_actions); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;

  const posix_spawn_file_actions_t* Get() const { return &m_actions; }

 private:
  posix_spawn_file_actions_t m_actions{};
};

}  // namespace

Certificates::Certificates(const std::filesystem::path& parent, const std::string& authority)
    : m_folder(parent / authority) {
  std::filesystem::create_directory(m_folder);
  runOpenssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
              "-keyout", Path("ca.key"), "-out", Path("ca.crt"), "-subj", "/CN=" + authority,
              "-days", "2"});
}

void Certificates::Sign(const std::string& name, const std::string& subject,
                        const std::string& use) const {
  sign(name, "subjectAltName=" + subject + (use.empty() ? "" : "\nextendedKeyUsage=" + use), "2");
}

void Certificates::SignExpired(const std::string& name, const std::string& subject) const {
  sign(name, "subjectAltName=" + subject, "-1");
}

void Certificates::SelfSign(const std::string& name, const std::string& subject) const {
  runOpenssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
              "-keyout", Path(name + ".key"), "-out", Path(name + ".crt"), "-subj", "/CN=" + name,
              "-addext", "subjectAltName=" + subject, "-days", "2"});
}

std::string Certificates::ListenerLines(const std::string& name) const {
  return "cafile " + Path("ca.crt") + "\ncertfile " + Path(name + ".crt") + "\nkeyfile " +
         Path(name + ".key") + "\n";
}

void Certificates::sign(const std::string& name, const std::string& extensions,
                        const std::string& days) const {
  runOpenssl({"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
              Path(name + ".key"), "-out", Path(name + ".csr"), "-subj", "/CN=" + name});
  std::ofstream(Path(name + ".ext")) << extensions << "\n";
  runOpenssl({"x509", "-req", "-in", Path(name + ".csr"), "-CA", Path("ca.crt"), "-CAkey",
              Path("ca.key"), "-CAcreateserial", "-out", Path(name + ".crt"), "-days", days,
              "-extfile", Path(name + ".ext")});
}

void Certificates::runOpenssl(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), "openssl");
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  const std::string output = Path("openssl.log");
  const FileActions actions(output);
  pid_t child = 0;
  int status = posix_spawnp(&child, "openssl", actions.Get(), nullptr, pointers.data(), environ);
  if (status == 0) {
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
  }
  if (status == 0) return;
  std::ostringstream said;
  said << std::ifstream(output).rdbuf();
  throw std::runtime_error("openssl " + arguments[1] + " fails (is it installed?) " + said.str());
}
