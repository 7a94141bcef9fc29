#ifndef TESTS_SYSTEM_PROCESSUSE_H
#define TESTS_SYSTEM_PROCESSUSE_H

#include <sys/resource.h>
#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

// What a process uses.
struct ProcessUse {
  // Throws std::runtime_error when there is no such process, or only what a dead one leaves.
  static ProcessUse Of(pid_t process) {
    ProcessUse use;
    std::ifstream status(folderOf(process) + "status");
    for (std::string key; status >> key;) {
      if (key == "VmRSS:") status >> use.residentKib;
      if (key == "VmHWM:") status >> use.peakKib;
      if (key == "Threads:") status >> use.threads;
    }
    std::error_code error;
    const std::filesystem::directory_iterator open(folderOf(process) + "fd", error);
    if (error || use.residentKib == 0) throw std::runtime_error("the process is gone");
    use.descriptors = static_cast<std::size_t>(std::distance(begin(open), end(open)));
    return use;
  }
  // Begins to take the peak anew.
  static void ResetPeak(pid_t process) { std::ofstream(folderOf(process) + "clear_refs") << "5"; }

  // The process may open no file with this number or a higher one. Does nothing when it has ended.
  static constexpr rlim_t kPlentyOfDescriptors = 256;
  static void LimitDescriptors(pid_t process, rlim_t limit) {
    rlimit current{};
    if (prlimit(process, RLIMIT_NOFILE, nullptr, &current) != 0) return;
    current.rlim_cur = limit;
    prlimit(process, RLIMIT_NOFILE, &current, nullptr);
  }
  // It may open no further file at all.
  static void TakeDescriptors(pid_t process) {
    rlim_t free = 0;
    const auto isOpen = [process](rlim_t number) {
      const std::string file = folderOf(process) + "fd/" + std::to_string(number);
      return is_symlink(std::filesystem::symlink_status(file));
    };
    while (isOpen(free)) ++free;
    LimitDescriptors(process, free);
  }

  std::size_t residentKib = 0;
  std::size_t peakKib = 0;  // of the resident memory
  std::size_t threads = 0;
  std::size_t descriptors = 0;

 private:
  static std::string folderOf(pid_t process) { return "/proc/" + std::to_string(process) + "/"; }
};

#endif  // TESTS_SYSTEM_PROCESSUSE_H
