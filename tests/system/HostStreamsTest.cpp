// What the host's standard streams are when somebody has closed them or does not read them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "HostTest.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

namespace {

namespace fs = std::filesystem;

class HostStreamsTest : public HostTest {
 protected:
  // Starts the host with a shell's redirections, in which $1 is the word. There may be no standard
  // output that tells when it is ready.
  std::unique_ptr<HostProcess> StartWith(const std::string& redirections,
                                         const std::string& word = "",
                                         const std::string& level = "info") {
    auto variables = Variables();
    variables["DLOG_LEVEL"] = level;
    auto host = std::make_unique<HostProcess>(
        std::vector<std::string>{
            "sh", "-c", "exec " ADC_HOST_FILE " " ADC_PLUGIN_FILE " " + redirections, "sh", word},
        variables);
    EXPECT_TRUE(WaitUntil([this] { return Setting(kStatusKey) == "1\n"; })) << host->Errors();
    return host;
  }

  static std::string FileOf(const HostProcess& host, int descriptor) {
    std::error_code ignored;
    const fs::path link =
        "/proc/" + std::to_string(host.Pid()) + "/fd/" + std::to_string(descriptor);
    return fs::read_symlink(link, ignored).string();
  }

  void ExpectServes() {
    const auto client = NewClient();
    EXPECT_EQ("(0,)", Call(*client, "register_app", "qz").value);
    EXPECT_EQ("(0,)", Call(*client, "unregister_app", "qz").value);
  }
};

// A pipe with a name, whose reading end is this object's and is never read.
class UnreadPipe {
 public:
  UnreadPipe() {
    if (mkfifo(Path().c_str(), 0600) != 0) throw std::runtime_error("no pipe");
    // For both, so that a writer does not wait for a reader.
    m_descriptor = open(Path().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  }
  ~UnreadPipe() {
    if (m_descriptor >= 0) close(m_descriptor);
  }
  UnreadPipe(const UnreadPipe&) = delete;
  UnreadPipe& operator=(const UnreadPipe&) = delete;

  std::string Path() const { return m_folder.Path() / "pipe"; }

  void Fill() {
    const std::array<char, 4096> page{};
    while (write(m_descriptor, page.data(), page.size()) > 0) {
    }
  }
  void CloseReader() {
    close(m_descriptor);
    m_descriptor = -1;
  }
  // What has been written since it was filled; it is empty afterwards.
  std::string Read() {
    std::string text;
    std::array<char, 4096> part{};
    for (ssize_t count = 0; (count = read(m_descriptor, part.data(), part.size())) > 0;) {
      text.append(part.data(), static_cast<std::size_t>(count));
    }
    return text.substr(text.find_last_of('\0') + 1);
  }

 private:
  const TemporaryFolder m_folder;
  int m_descriptor = -1;
};

TEST_F(HostStreamsTest, AClosedStandardErrorLeadsNowhereAndNotIntoAConnection) {
  const auto host = StartWith("2>&-");
  EXPECT_EQ("/dev/null", FileOf(*host, STDERR_FILENO));
  EXPECT_TRUE(host->WaitForOutput(kReadyLine));
  ExpectServes();
  EXPECT_EQ(0, host->End(SIGTERM));
}

TEST_F(HostStreamsTest, SoDoAllThree) {
  const auto host = StartWith("0<&- 1>&- 2>&-");
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    EXPECT_EQ("/dev/null", FileOf(*host, stream)) << stream;
  }
  ExpectServes();
  EXPECT_EQ(0, host->End(SIGTERM));
}

TEST_F(HostStreamsTest, OpenStreamsStayWhatTheyAre) {
  const auto host = StartWith("");
  EXPECT_EQ(0U, FileOf(*host, STDOUT_FILENO).find("pipe:"));
  EXPECT_EQ(0U, FileOf(*host, STDERR_FILENO).find("pipe:"));
  EXPECT_EQ(0, host->End(SIGTERM));
}

TEST_F(HostStreamsTest, ServesWhileNobodyReadsItsLogAndTellsAfterwardsWhatIsMissing) {
  UnreadPipe log;
  log.Fill();
  const auto host = StartWith("2>\"$1\"", log.Path(), "debug");
  for (int i = 0; i < 20; ++i) ExpectServes();
  EXPECT_EQ("", log.Read());
  ExpectServes();
  const std::string text = log.Read();
  EXPECT_EQ(1U, CountOf(" W DLOG: ", text)) << text;
  EXPECT_EQ(1U, CountOf(" log lines were dropped\n", text)) << text;
  EXPECT_EQ(0, host->End(SIGTERM));
}

TEST_F(HostStreamsTest, ServesAndEndsWith0WhenNobodyReadsWhetherItIsReady) {
  UnreadPipe output;
  output.Fill();
  const auto host = StartWith(">\"$1\" 2>&1", output.Path());
  ExpectServes();
  EXPECT_EQ(0, host->End(SIGTERM));
}

TEST_F(HostStreamsTest, FailsAllTheSameWhenNobodyReadsWhy) {
  UnreadPipe errors;
  errors.Fill();
  HostProcess host({"sh", "-c", "exec " ADC_HOST_FILE " /nowhere.so 2>\"$1\"", "sh", errors.Path()},
                   Variables());
  EXPECT_EQ(1, host.Wait());
}

TEST_F(HostStreamsTest, ServesAndEndsWith0WhenTheReaderOfItsLogHasEnded) {
  UnreadPipe log;
  const auto host = StartWith("2>\"$1\"", log.Path(), "debug");
  log.CloseReader();
  ExpectServes();
  EXPECT_EQ(0, host->End(SIGTERM));
}

}  // namespace
