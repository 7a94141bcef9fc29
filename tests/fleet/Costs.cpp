#include "Costs.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace Fleet {

namespace {

std::string folderOf(pid_t process) {
  return "/proc/" + std::to_string(process) + "/";
}

std::int64_t numberIn(const std::string& file, const std::string& key) {
  std::ifstream lines(file);
  for (std::string word; lines >> word;) {
    std::int64_t number = 0;
    if (word == key && lines >> number) return number;
  }
  return 0;
}

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : m_descriptor(descriptor) {
    if (descriptor < 0) throw std::runtime_error("the kernel does not say what connections carry");
  }
  ~Descriptor() { close(m_descriptor); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Get() const { return m_descriptor; }

 private:
  const int m_descriptor;
};

void add(const nlmsghdr& header, int port, Traffic& sum) {
  const char* const begin = reinterpret_cast<const char*>(&header) + NLMSG_HDRLEN;
  inet_diag_msg connection{};
  std::memcpy(&connection, begin, sizeof connection);
  if (ntohs(connection.id.idiag_sport) != port) return;
  std::size_t offset = NLMSG_ALIGN(sizeof connection);
  const std::size_t size = header.nlmsg_len - NLMSG_HDRLEN;
  while (offset + sizeof(rtattr) <= size) {
    rtattr attribute{};
    std::memcpy(&attribute, begin + offset, sizeof attribute);
    if (attribute.rta_len < sizeof attribute) return;
    if (attribute.rta_type == INET_DIAG_INFO) {
      tcp_info info{};
      std::memcpy(&info, begin + offset + RTA_LENGTH(0),
                  std::min(sizeof info, std::size_t{attribute.rta_len} - RTA_LENGTH(0)));
      ++sum.connections;
      sum.bytesIn += static_cast<std::int64_t>(info.tcpi_bytes_received);
      sum.bytesOut += static_cast<std::int64_t>(info.tcpi_bytes_acked);
      sum.segmentsIn += info.tcpi_data_segs_in;
      sum.segmentsOut += info.tcpi_data_segs_out;
    }
    offset += RTA_ALIGN(attribute.rta_len);
  }
}

}  // namespace

std::int64_t CpuOf(pid_t process) {
  clockid_t clock{};
  timespec used{};
  if (process == 0) return 0;  // to the kernel, the caller
  if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &used) != 0) return 0;
  return std::int64_t{used.tv_sec} * 1'000'000'000 + used.tv_nsec;
}

std::int64_t WakeUpsOf(pid_t process) {
  std::int64_t sum = 0;
  std::error_code error;
  std::filesystem::directory_iterator task(folderOf(process) + "task", error);
  for (; !error && task != std::filesystem::directory_iterator(); task.increment(error)) {
    sum += numberIn(task->path() / "status", "voluntary_ctxt_switches:");
  }
  return sum;
}

std::int64_t MemoryOf(pid_t process) {
  return numberIn(folderOf(process) + "smaps_rollup", "Pss:");
}

std::int64_t OwnMemoryOf(pid_t process) {
  return numberIn(folderOf(process) + "smaps_rollup", "Private_Dirty:");
}

Traffic TrafficAt(int port) {
  constexpr unsigned kEstablished = 1;
  const Descriptor netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  struct {
    nlmsghdr header;
    inet_diag_req_v2 request;
  } question{};
  question.header.nlmsg_len = sizeof question;
  question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  question.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  question.request.sdiag_family = AF_INET;
  question.request.sdiag_protocol = IPPROTO_TCP;
  question.request.idiag_ext = 1U << (INET_DIAG_INFO - 1);
  question.request.idiag_states = 1U << kEstablished;
  if (send(netlink.Get(), &question, sizeof question, 0) < 0) {
    throw std::runtime_error("the kernel does not say what connections carry");
  }
  Traffic sum;
  std::vector<char> buffer(1U << 20U);
  while (true) {
    const ssize_t count = recv(netlink.Get(), buffer.data(), buffer.size(), 0);
    if (count <= 0) throw std::runtime_error("the kernel does not say what connections carry");
    std::size_t offset = 0;
    while (offset + sizeof(nlmsghdr) <= static_cast<std::size_t>(count)) {
      const auto* const header = reinterpret_cast<const nlmsghdr*>(buffer.data() + offset);
      if (header->nlmsg_type == NLMSG_DONE) return sum;
      if (header->nlmsg_type == NLMSG_ERROR || header->nlmsg_len < sizeof(nlmsghdr)) {
        throw std::runtime_error("the kernel does not say what connections carry");
      }
      add(*header, port, sum);
      offset += NLMSG_ALIGN(header->nlmsg_len);
    }
  }
}

}  // namespace Fleet
