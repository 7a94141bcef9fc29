// The file with the health when the disk is full.
#include "health/HealthFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>

#include "CapturedLog.h"
#include "TemporaryFolder.h"

namespace {

using namespace Lumo;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Field;
using testing::IsEmpty;

// While it is there, a file takes as many bytes as a disk that has no more.
class FullDisk {
 public:
  explicit FullDisk(rlim_t bytes) : m_action(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &m_limit);
    const rlimit less{bytes, m_limit.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &less), 0);
  }
  ~FullDisk() {
    setrlimit(RLIMIT_FSIZE, &m_limit);
    static_cast<void>(std::signal(SIGXFSZ, m_action));
  }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

 private:
  rlimit m_limit{};
  sighandler_t m_action;
};

TEST(HealthFileTextTest, OnAFullDiskTheOldTextStaysWholeAndOneLineSaysSoUntilItIsWrittenAgain) {
  constexpr std::size_t kRoom = 65536;
  const std::string old(kRoom / 2, 'o');
  const std::string tooLong(kRoom + 1, 'n');
  const auto saysSo =
      Field(&CapturedLog::Line::message, EndsWith("health.prom': File too large\n"));
  const TemporaryFolder folder;
  HealthFile file(folder.Path() / "health.prom");
  CapturedLog::Get().Take();
  file.Write(old);
  for (int round = 0; round < 2; ++round) {
    {
      const FullDisk disk(kRoom);
      file.Write(tooLong);
      file.Write(tooLong);
    }
    EXPECT_THAT(CapturedLog::Get().Take(), ElementsAre(saysSo));
    EXPECT_EQ(folder.Read("health.prom"), old);
    EXPECT_FALSE(std::filesystem::exists(folder.Path() / "health.prom.new"));
    file.Write(tooLong);
    EXPECT_EQ(folder.Read("health.prom"), tooLong);
    file.Write(old);
    EXPECT_THAT(CapturedLog::Get().Take(), IsEmpty());
  }
}

}  // namespace
