#include "Caller.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace {

constexpr const char* kObjectPath = "/org/tizen/qivo_thing";
constexpr const char* kInterface = "org.tizen.qivo_thing.service";
constexpr std::uint64_t kTimeoutMicroseconds = 60'000'000;

using Microseconds = std::chrono::duration<double, std::micro>;

int require(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(-result));
  return result;
}

// Empty when it is the answer 0.
std::string failureOf(sd_bus_message* reply) {
  const sd_bus_error* const error = sd_bus_message_get_error(reply);
  if (error != nullptr) return error->message != nullptr ? error->message : error->name;
  std::int32_t result = -1;
  if (sd_bus_message_read(reply, "i", &result) < 0) return "an answer of another type";
  return result == 0 ? std::string() : "the answer " + std::to_string(result);
}

}  // namespace

Caller::Caller(const Destination& destination, const Options& options)
    : m_destination(destination), m_options(options), m_data(options.size, 'x') {
  for (std::size_t i = 0; i < options.connections; ++i) {
    sd_bus* bus = nullptr;
    require(sd_bus_new(&bus), "sd_bus_new");
    m_buses.emplace_back(bus);
    require(sd_bus_set_address(bus, destination.address.c_str()), "the bus's address");
    require(sd_bus_set_bus_client(bus, 1), "sd_bus_set_bus_client");
    require(sd_bus_start(bus), "the bus cannot be reached");
    // Waits until the bus has said hello: it takes only some newcomers at a time.
    const char* name = nullptr;
    require(sd_bus_get_unique_name(bus, &name), "the bus cannot be reached");
  }
  for (const std::string& app : destination.apps) call("register_app", app);
}

Caller::~Caller() = default;

Block Caller::Run() {
  Block block;
  block.microseconds.reserve(m_options.calls);
  const Clock::time_point start = Clock::now();
  if (m_options.inFlight == 1) {
    runOneByOne(block);
  } else {
    runInFlight(block);
  }
  block.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::sort(block.microseconds.begin(), block.microseconds.end());
  return block;
}

Caller::MessagePtr Caller::newCall(sd_bus* bus, const char* method, const std::string& app,
                                   const char* data) {
  sd_bus_message* raw = nullptr;
  require(sd_bus_message_new_method_call(bus, &raw, m_destination.name.c_str(), kObjectPath,
                                         kInterface, method),
          method);
  MessagePtr message(raw);
  require(sd_bus_message_append_basic(raw, 's', app.c_str()), method);
  if (data != nullptr) require(sd_bus_message_append_basic(raw, 's', data), method);
  return message;
}

void Caller::call(const char* method, const std::string& app) {
  const MessagePtr message = newCall(m_buses.front().get(), method, app, nullptr);
  sd_bus_message* raw = nullptr;
  require(sd_bus_call(m_buses.front().get(), message.get(), kTimeoutMicroseconds, nullptr, &raw),
          method);
  const MessagePtr reply(raw);
  const std::string failure = failureOf(raw);
  if (!failure.empty()) throw std::runtime_error(std::string(method) + ": " + failure);
}

void Caller::runOneByOne(Block& block) {
  for (std::size_t i = 0; i < m_options.calls; ++i) {
    sd_bus* const bus = m_buses[i % m_buses.size()].get();
    const std::string& app = m_destination.apps[i % m_destination.apps.size()];
    const Clock::time_point start = Clock::now();
    const MessagePtr message = newCall(bus, "send_data", app, m_data.c_str());
    sd_bus_message* raw = nullptr;
    require(sd_bus_call(bus, message.get(), kTimeoutMicroseconds, nullptr, &raw), "send_data");
    const MessagePtr reply(raw);
    block.microseconds.push_back(Microseconds(Clock::now() - start).count());
    const std::string failure = failureOf(raw);
    if (!failure.empty()) throw std::runtime_error("send_data: " + failure);
  }
}

void Caller::runInFlight(Block& block) {
  m_block = &block;
  m_sent = 0;
  m_failure.clear();
  std::vector<Pending> pending(std::min(m_options.inFlight, m_options.calls));
  for (Pending& one : pending) {
    one.caller = this;
    send(one);
  }
  sd_bus* const bus = m_buses.front().get();
  while (block.microseconds.size() < m_options.calls) {
    if (require(sd_bus_process(bus, nullptr), "the bus") > 0) {
      if (!m_failure.empty()) throw std::runtime_error("send_data: " + m_failure);
      continue;
    }
    if (require(sd_bus_wait(bus, kTimeoutMicroseconds), "the bus") == 0) {
      throw std::runtime_error("send_data: no answer");
    }
  }
}

void Caller::send(Pending& pending) {
  sd_bus* const bus = m_buses.front().get();
  const std::string& app = m_destination.apps[m_sent % m_destination.apps.size()];
  ++m_sent;
  pending.start = Clock::now();
  const MessagePtr message = newCall(bus, "send_data", app, m_data.c_str());
  require(sd_bus_call_async(bus, nullptr, message.get(), &Caller::on_reply, &pending,
                            kTimeoutMicroseconds),
          "send_data");
}

int Caller::on_reply(sd_bus_message* reply, void* pending, sd_bus_error* /*error*/) {
  auto& one = *static_cast<Pending*>(pending);
  Caller& caller = *one.caller;
  caller.m_block->microseconds.push_back(Microseconds(Clock::now() - one.start).count());
  try {
    const std::string failure = failureOf(reply);
    if (!failure.empty()) throw std::runtime_error(failure);
    if (caller.m_sent < caller.m_options.calls) caller.send(one);
  } catch (const std::exception& error) {
    caller.m_failure = error.what();
  }
  return 1;
}
