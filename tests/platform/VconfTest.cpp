#include "vconf.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "TemporaryFolder.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

constexpr const char* kKey = "memory/iot/thing/thing_status";

std::string contentOf(const fs::path& path) {
  std::ifstream stream(path);
  return {std::istreambuf_iterator<char>(stream), {}};
}

mode_t permissionsOf(const fs::path& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

// Everything below the folder, relative to it.
std::set<std::string> treeOf(const fs::path& folder) {
  std::set<std::string> names;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    names.insert(entry.path().lexically_relative(folder).string());
  }
  return names;
}

// VCONF_DIR is a folder "settings", not created yet, in a temporary one.
class VconfTest : public ::testing::Test {
 protected:
  VconfTest() { setenv("VCONF_DIR", m_settings.c_str(), 1); }
  ~VconfTest() override { unsetenv("VCONF_DIR"); }

 private:
  const TemporaryFolder m_folder;

 protected:
  const fs::path& m_temporary = m_folder.Path();
  const fs::path m_settings = m_temporary / "settings";
};

TEST_F(VconfTest, WritesTheDecimalNumberAndALineFeedInPlaceOfTheOld) {
  for (const int value : {123, 4, INT_MIN, INT_MAX}) {
    EXPECT_EQ(vconf_set_int(kKey, value), 0);
    EXPECT_EQ(contentOf(m_settings / kKey), std::to_string(value) + "\n");
  }
}

TEST_F(VconfTest, FoldersAndFilesAreTheOwnersAloneAndNothingElseIsLeft) {
  EXPECT_EQ(vconf_set_int("a/b", 1), 0);
  EXPECT_EQ(vconf_set_int("a/b", 2), 0);
  EXPECT_EQ(permissionsOf(m_settings), 0700U);
  EXPECT_EQ(permissionsOf(m_settings / "a"), 0700U);
  EXPECT_EQ(permissionsOf(m_settings / "a/b"), 0600U);
  EXPECT_THAT(treeOf(m_settings), ::testing::ElementsAre("a", "a/b"));
}

TEST_F(VconfTest, ReadsTheEnvironmentAtEachCall) {
  const fs::path other = m_temporary / "other/deeper";
  EXPECT_EQ(vconf_set_int("a", 1), 0);
  setenv("VCONF_DIR", other.c_str(), 1);
  EXPECT_EQ(vconf_set_int("a", 2), 0);
  EXPECT_EQ(contentOf(m_settings / "a"), "1\n");
  EXPECT_EQ(contentOf(other / "a"), "2\n");
}

TEST_F(VconfTest, DefaultsToTheRuntimeDirectory) {
  const char* inherited = std::getenv("XDG_RUNTIME_DIR");
  const std::string runtime = inherited == nullptr ? "" : inherited;
  setenv("XDG_RUNTIME_DIR", m_temporary.c_str(), 1);
  unsetenv("VCONF_DIR");
  EXPECT_EQ(vconf_set_int("a", 1), 0);
  setenv("VCONF_DIR", "", 1);
  EXPECT_EQ(vconf_set_int("b", 2), 0);
  if (inherited == nullptr) {
    unsetenv("XDG_RUNTIME_DIR");
  } else {
    setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
  }
  EXPECT_EQ(contentOf(m_temporary / "vconf/a"), "1\n");
  EXPECT_EQ(contentOf(m_temporary / "vconf/b"), "2\n");
}

TEST_F(VconfTest, AcceptsARelativeFolder) {
  ChildProcess child([&] {
    if (chdir(m_temporary.c_str()) != 0) return 2;
    setenv("VCONF_DIR", "here/and/there", 1);
    return vconf_set_int("a", 5) == 0 ? 0 : 1;
  });
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(contentOf(m_temporary / "here/and/there/a"), "5\n");
}

TEST_F(VconfTest, RefusesKeysThatAreNotPlainPaths) {
  EXPECT_NE(vconf_set_int(nullptr, 1), 0);
  const std::string longName(NAME_MAX + 1, 'x');
  for (const std::string& key : {""s, "/"s, "/a"s, "a/"s, "a//b"s, "."s, ".."s, "./a"s, "../a"s,
                                 "a/./b"s, "a/../../b"s, "a/.."s, "a/" + longName}) {
    EXPECT_NE(vconf_set_int(key.c_str(), 1), 0) << key;
  }
  EXPECT_THAT(treeOf(m_temporary), ::testing::IsEmpty());
}

TEST_F(VconfTest, AcceptsNamesThatOnlyLookSpecial) {
  for (const char* key : {"...", "..a", ".hidden", "a b", "a/...", "-n"}) {
    EXPECT_EQ(vconf_set_int(key, 1), 0) << key;
    EXPECT_EQ(contentOf(m_settings / key), "1\n") << key;
    fs::remove_all(m_settings);
  }
}

TEST_F(VconfTest, DoesNotFollowALinkOutOfTheFolder) {
  fs::create_directories(m_settings);
  fs::create_directory(m_temporary / "outside");
  fs::create_directory_symlink(m_temporary / "outside", m_settings / "link");
  EXPECT_NE(vconf_set_int("link/a", 1), 0);
  EXPECT_TRUE(fs::is_empty(m_temporary / "outside"));
}

TEST_F(VconfTest, ReplacesALinkInsteadOfWritingThroughIt) {
  fs::create_directories(m_settings);
  std::ofstream(m_temporary / "outside") << "untouched";
  fs::create_symlink(m_temporary / "outside", m_settings / "a");
  EXPECT_EQ(vconf_set_int("a", 1), 0);
  EXPECT_EQ(contentOf(m_temporary / "outside"), "untouched");
  EXPECT_FALSE(fs::is_symlink(m_settings / "a"));
}

TEST_F(VconfTest, FailsWhenAFileOrFolderIsInTheWayAndLeavesNoDescriptorOpen) {
  const auto countDescriptors = [] {
    const fs::directory_iterator open("/proc/self/fd");
    return std::distance(begin(open), end(open));
  };
  const auto before = countDescriptors();
  EXPECT_EQ(vconf_set_int("a/b", 1), 0);
  EXPECT_NE(vconf_set_int("a", 2), 0);
  EXPECT_NE(vconf_set_int("a/b/c", 2), 0);
  EXPECT_THAT(treeOf(m_settings), ::testing::ElementsAre("a", "a/b"));
  setenv("VCONF_DIR", (m_settings / "a/b/settings").c_str(), 1);
  EXPECT_NE(vconf_set_int("a", 1), 0) << "the folder cannot be created";
  EXPECT_EQ(countDescriptors(), before);
}

TEST_F(VconfTest, KeepsTheOldValueWhenTheNewOneCannotBeWritten) {
  EXPECT_EQ(vconf_set_int("a", 1), 0);
  ChildProcess child([] {
    const rlimit nothing{0, 0};
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
    if (setrlimit(RLIMIT_FSIZE, &nothing) != 0) return 2;
    const int result = vconf_set_int("a", 2);
    _exit(result != 0 ? 0 : 1);  // nothing may be written any more, reports included
  });
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(contentOf(m_settings / "a"), "1\n");
  EXPECT_THAT(treeOf(m_settings), ::testing::ElementsAre("a"));
}

TEST_F(VconfTest, AReaderAlwaysSeesAWholeValue) {
  constexpr int kWriters = 3;
  constexpr int kWrites = 200;
  ASSERT_EQ(vconf_set_int("a", 111'111), 0);
  std::atomic<int> failures{0};
  std::atomic<int> running{kWriters};
  std::vector<std::thread> writers;
  for (int i = 1; i <= kWriters; ++i) {
    writers.emplace_back([&, i] {
      for (int n = 0; n < kWrites; ++n) {
        if (vconf_set_int("a", i * 111'111) != 0) ++failures;
      }
      --running;
    });
  }
  std::set<std::string> seen;
  do {
    seen.insert(contentOf(m_settings / "a"));
  } while (running > 0);
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(failures, 0);
  for (const std::string& value : seen) {
    EXPECT_THAT(value, ::testing::AnyOf("111111\n", "222222\n", "333333\n"));
  }
  EXPECT_THAT(treeOf(m_settings), ::testing::ElementsAre("a"));
}

}  // namespace
