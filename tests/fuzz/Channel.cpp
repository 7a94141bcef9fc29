// Built without access control: nothing but the members shows what is checked here.
#include "Channel.h"

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>

#include "AppDataChannelCore.h"

namespace fuzz::Channel {
namespace {

// A wake-up of the worker may be lost. It is given another one after this time.
constexpr std::chrono::milliseconds kWorkerPatience(1);

// Unlike the core's functions, waits for nobody who holds the core's lock.
AppDataChannel::AppDataChannelControl& control() {
  return AppDataChannel::AppDataChannelCore::GetInstance().m_control;
}

}  // namespace

std::map<std::string, ChannelModel::App> Apps() {
  auto& registry = control().m_app_info;
  const std::lock_guard<std::recursive_mutex> lock(registry.m_mutex);
  std::map<std::string, ChannelModel::App> apps;
  for (const auto& [name, app] : registry.m_appDataMap) apps[name] = {app.count, app.data};
  return apps;
}

int Send(const std::string& app, const std::string& data) {
  return control().NotifyData(app, data);
}

void ForgetEverything() {
  control().m_app_info.Reset();
  auto& things = control().m_thing_info;
  const std::lock_guard<std::recursive_mutex> lock(things.m_mutex);
  things.m_properties.clear();
}

void WaitForWorker() {
  const auto mark = std::make_shared<std::promise<void>>();
  std::function<void()> job = [mark] { mark->set_value(); };
  std::function<void()> wakeUp;  // an empty job does nothing but that
  auto& wrapper = control().m_lumo_api;
  const auto reached = mark->get_future();
  wrapper.executeJob(job);
  while (reached.wait_for(kWorkerPatience) != std::future_status::ready) {
    wrapper.addJobToDispatcher(wakeUp);
  }
}

void WaitForWorkerToEnd() {
  auto& dispatcher = control().m_lumo_api.m_dispatcher;
  if (!dispatcher || !dispatcher->m_thread.joinable()) return;
  const auto end =
      std::async(std::launch::async, [&worker = dispatcher->m_thread] { worker.join(); });
  while (end.wait_for(kWorkerPatience) != std::future_status::ready) dispatcher->m_cv.notify_one();
}

}  // namespace fuzz::Channel
