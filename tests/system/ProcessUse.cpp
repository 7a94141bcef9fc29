#include "ProcessUse.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

namespace {

std::string folderOf(pid_t process) {
  return "/proc/" + std::to_string(process) + "/";
}

}  // namespace

ProcessUse ProcessUse::Of(pid_t process) {
  ProcessUse use;
  std::ifstream status(folderOf(process) + "status");
  std::string key;
  while (status >> key) {
    if (key == "VmRSS:") status >> use.residentKib;
    if (key == "VmHWM:") status >> use.peakKib;
    if (key == "Threads:") status >> use.threads;
  }
  std::error_code error;
  const std::filesystem::directory_iterator descriptors(folderOf(process) + "fd", error);
  if (error || use.residentKib == 0) throw std::runtime_error("the process is gone");
  use.descriptors =
      static_cast<std::size_t>(std::distance(descriptors, std::filesystem::directory_iterator()));
  return use;
}

void ProcessUse::ResetPeak(pid_t process) {
  std::ofstream(folderOf(process) + "clear_refs") << "5";
}

void LimitDescriptors(pid_t process, rlim_t limit) {
  rlimit current{};
  if (prlimit(process, RLIMIT_NOFILE, nullptr, &current) != 0) return;
  current.rlim_cur = limit;
  prlimit(process, RLIMIT_NOFILE, &current, nullptr);
}

rlim_t LowestFreeDescriptor(pid_t process) {
  rlim_t number = 0;
  while (std::filesystem::is_symlink(
      std::filesystem::symlink_status(folderOf(process) + "fd/" + std::to_string(number)))) {
    ++number;
  }
  return number;
}
