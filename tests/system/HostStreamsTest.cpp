// What the host's standard streams are when somebody has closed them or does not read them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>

#include "HostTest.h"

namespace {

namespace fs = std::filesystem;

class HostStreamsTest : public HostTest {
 protected:
  void RunWith(const std::string& arguments, const std::string& word, const std::string& level) {
    channel.Run({"bash", "-c", "exec " ADC_HOST_FILE " " + arguments, "bash", word},
                {{"DLOG_LEVEL", level}});
  }
  // Starts the host with a shell's redirections, in which $1 is the word. There may be no standard
  // output that tells when it is ready.
  void StartWith(const std::string& redirections, const std::string& word = "",
                 const std::string& level = "info") {
    RunWith(ADC_PLUGIN_FILE " " + redirections, word, level);
    EXPECT_TRUE(WaitUntil([this] { return Setting(kStatusKey) == "1\n"; }));
  }

  std::string FileOf(int descriptor) {
    std::error_code ignored;
    const std::string folder = "/proc/" + std::to_string(Host().Pid()) + "/fd/";
    return fs::read_symlink(folder + std::to_string(descriptor), ignored).string();
  }

  void ExpectServes(int times = 1) {
    const auto client = NewClient();
    for (int i = 0; i < times; ++i) {
      EXPECT_EQ("(0,)", Register(*client, "qz"));
      EXPECT_EQ("(0,)", Unregister(*client, "qz"));
    }
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
  ~UnreadPipe() { CloseReader(); }
  UnreadPipe(const UnreadPipe&) = delete;
  UnreadPipe& operator=(const UnreadPipe&) = delete;

  std::string Path() const { return m_folder.Path() / "pipe"; }

  void Fill() {
    const std::array<char, 4096> page{};
    while (write(m_descriptor, page.data(), page.size()) > 0) {
    }
  }
  void CloseReader() {
    if (m_descriptor >= 0) close(m_descriptor);
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

TEST_F(HostStreamsTest, AClosedStandardErrorOrAllThreeLeadNowhereAndNotIntoAConnection) {
  for (const std::string redirections : {"2>&-", "0<&- 1>&- 2>&-", ""}) {
    SCOPED_TRACE(redirections);
    StartWith(redirections);
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
      const bool isClosed = redirections.find(std::to_string(stream)) != std::string::npos;
      const std::string file = FileOf(stream);
      if (isClosed) {
        EXPECT_EQ("/dev/null", file);
      } else if (stream != STDIN_FILENO) {
        EXPECT_EQ(0U, file.find("pipe:")) << file;
      }
    }
    ExpectServes();
    EXPECT_EQ(0, Host().End(SIGTERM));
    const bool isOutputClosed = redirections.find("1>") != std::string::npos;
    EXPECT_EQ(isOutputClosed ? "" : kReadyLine, Host().Output());
  }
}

TEST_F(HostStreamsTest, ServesWhileNobodyReadsItsLogAndTellsAfterwardsWhatIsMissing) {
  UnreadPipe log;
  log.Fill();
  StartWith("2>\"$1\"", log.Path(), "debug");
  ExpectServes(20);
  EXPECT_EQ("", log.Read());
  ExpectServes();
  const std::string text = log.Read();
  EXPECT_EQ(1U, CountOf(" W DLOG: ", text)) << text;
  EXPECT_EQ(1U, CountOf(" log lines were dropped\n", text)) << text;
}

TEST_F(HostStreamsTest, ServesAndEndsWith0WhenNobodyReadsWhetherItIsReady) {
  UnreadPipe output;
  output.Fill();
  StartWith(">\"$1\" 2>&1", output.Path());
  ExpectServes();
}

TEST_F(HostStreamsTest, ServesAndEndsWith0WhenTheReaderOfItsOutputHasEndedBefore) {
  StartWith("> >(:)");
  ExpectServes();
}

TEST_F(HostStreamsTest, ServesAndEndsWith0WhenTheReaderOfItsLogHasEnded) {
  UnreadPipe log;
  StartWith("2>\"$1\"", log.Path(), "debug");
  log.CloseReader();
  ExpectServes();
}

TEST_F(HostStreamsTest, EachLineForTheJournalHasItsPriority) {
  const std::string asJournal =
      "export JOURNAL_STREAM=$(stat -Lc %d:%i /dev/fd/2); exec " ADC_HOST_FILE " ";
  channel.Run({"bash", "-c", asJournal + ADC_PLUGIN_FILE});
  ASSERT_TRUE(Host().WaitForOutput(kReadyLine));
  EXPECT_EQ(0, Host().End(SIGTERM));
  const std::string log = Host().Errors();
  EXPECT_LT(0U, CountOf("<6>I QIVO_THING: ", log));
  EXPECT_LT(0U, CountOf("<3>E TVCONTROL_A: ", log));
  EXPECT_EQ(1U, CountOf("<4>W LUMO: LUMO_BROKER is not set: nothing goes out\n", log));
  EXPECT_EQ(CountOf("\n", log), CountOf("\n<", "\n" + log));

  channel.Run({"bash", "-c", asJournal + "/nowhere.so"});
  EXPECT_EQ(1, Host().Wait());
  EXPECT_EQ(0U, Host().Errors().find("<3>qivo-thing: /nowhere.so: ")) << Host().Errors();
}

TEST_F(HostStreamsTest, FailsAllTheSameWhenNobodyReadsWhy) {
  UnreadPipe errors;
  errors.Fill();
  RunWith("/nowhere.so 2>\"$1\"", errors.Path(), "info");
  EXPECT_EQ(1, Host().Wait());
}

}  // namespace
