#include "CloudMix.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "CloudClient.h"
#include "HostProcess.h"

namespace Soak {
namespace {

constexpr int kDone = 0;
constexpr int kUnknownProperty = 6;
constexpr int kSigner = 0;
constexpr int kInformer = 1;
constexpr unsigned kMaxAtOnce = 8;        // requests of one requester
constexpr unsigned kMaxAppsAtOnce = 3;    // in one request
constexpr unsigned kMaxPauseUs = 30'000;  // between two steps
constexpr unsigned kLongText = 4'096;     // bytes
constexpr const char* kNobody = "nobody";

std::string compact(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

Json::Value doneWith(const std::string& properties) {
  return ParseJson(R"({"result": 0, "properties": {)" + properties + "}}");
}

}  // namespace

CloudMix::CloudMix(int port, const std::string& thing, int index, std::deque<AppModel>& apps,
                   ThingModel& thingModel, std::uint64_t seed, Tally& tally)
    : m_index(index),
      m_apps(apps),
      m_thing(thingModel),
      m_tally(tally),
      m_random(seed),
      m_requester(port, thing, index, tally) {}

void CloudMix::Run(const std::atomic<bool>& stop) {
  while (!stop) {
    step();
    std::this_thread::sleep_for(std::chrono::microseconds(random(kMaxPauseUs)));
  }
}

unsigned CloudMix::TakeSignins() {
  return std::exchange(m_signins, 0);
}

void CloudMix::step() {
  const unsigned count = random(3) == 0 ? 1 + random(kMaxAtOnce) : 1;
  std::vector<Request> requests;
  for (unsigned i = 0; i < count; ++i) requests.push_back(sendAny(i == 0));
  // When this one is answered, those before it are answered as well, or never will be.
  if (requests.back().isCancelled) requests.push_back(sendGet());
  std::stable_partition(requests.begin(), requests.end(),
                        [](const Request& request) { return !request.isCancelled; });
  for (const Request& request : requests) finish(request);
}

CloudMix::Request CloudMix::sendAny(bool thingMayChange) {
  const unsigned chance = random(100);
  if (chance < 50) return sendGet();
  if (chance < 80) return sendSet(/*isCancelled=*/false);
  if (chance < 85) return sendSet(/*isCancelled=*/true);
  if (chance < 88) return sendHopeless();
  Request request;
  if (chance < 90) {
    request.number = m_requester.Send("set", R"({"qz": )");
    return request;
  }
  if (chance < 93) {
    request.number = m_requester.Send("get", R"(["signinStatus"])");
    request.answer = doneWith(R"("signinStatus": "")");
    return request;
  }
  if (thingMayChange && m_index == kSigner) return sendSignin();
  if (thingMayChange && m_index == kInformer) return sendSignup();
  return sendGet();
}

CloudMix::Request CloudMix::sendGet() {
  Request request;
  request.apps = someApps();
  request.asksForNobody = random(20) == 0;
  Json::Value names(Json::arrayValue);
  for (const AskedApp& asked : request.apps) names.append(asked.app->name);
  if (request.asksForNobody) names.append(kNobody);
  request.number = m_requester.Send("get", compact(names));
  return request;
}

CloudMix::Request CloudMix::sendSet(bool isCancelled) {
  Request request;
  request.number = m_requester.NextNumber();
  request.apps = someApps();
  request.asksForNobody = random(20) == 0;
  request.isSet = true;
  request.isCancelled = isCancelled;
  std::string text = std::to_string(idOf(request));
  if (random(50) == 0) text.append(":").append(random(kLongText), 'x');
  Json::Value values(Json::objectValue);
  for (const AskedApp& asked : request.apps) {
    values[asked.app->name] = text;
    asked.app->sets.Begin(idOf(request));
  }
  if (request.asksForNobody) values[kNobody] = text;
  m_requester.Send("set", compact(values));
  if (isCancelled) m_requester.Cancel(request.number);
  return request;
}

CloudMix::Request CloudMix::sendHopeless() {
  Request request;
  request.apps = someApps();
  request.apps.resize(1);
  request.isCancelled = true;
  request.isHopeless = true;
  Json::Value values(Json::objectValue);
  values[request.apps[0].app->name]["volume"] = 9;
  request.number = m_requester.Send("set", compact(values));
  m_requester.Cancel(request.number);
  return request;
}

CloudMix::Request CloudMix::sendSignin() {
  const bool signedIn = !m_thing.signedIn.Last();
  m_thing.signedIn.Begin(signedIn);
  Request request;
  request.number = m_requester.Send(
      "set", signedIn ? R"({"signinStatus": true})" : R"({"signinStatus": false})");
  request.answer = doneWith("");
  request.onAnswer = [this] {
    m_thing.signedIn.End();
    ++m_signins;
  };
  return request;
}

CloudMix::Request CloudMix::sendSignup() {
  Json::Value values(Json::objectValue);
  values["signupInfo"]["user"] = "user " + std::to_string(m_requester.NextNumber());
  m_thing.signupInfo.Begin(values["signupInfo"].toStyledString());
  Request request;
  request.number = m_requester.Send("set", compact(values));
  request.answer = doneWith("");
  request.onAnswer = [this] { m_thing.signupInfo.End(); };
  return request;
}

void CloudMix::finish(const Request& request) {
  const std::optional<std::string> text = m_requester.WaitForAnswer(
      request.number, request.isCancelled ? std::chrono::milliseconds(0) : HostProcess::kPatience);
  if (!text && !request.isCancelled) {
    throw std::runtime_error("request " + std::to_string(request.number) + " is not answered");
  }
  const Json::Value answer = text ? ParseJson(*text) : Json::Value();
  if (text) {
    if (request.onAnswer) request.onAnswer();
    const std::string wrong = check(request, answer);
    if (!wrong.empty()) {
      m_tally.Mismatch("request " + std::to_string(request.number) + " of requester " +
                       std::to_string(m_index) + ": " + wrong + ": " + text->substr(0, 300));
    }
  }
  if (!request.isSet) return;
  for (const AskedApp& asked : request.apps) {
    const bool isThere = text && answer["properties"].isMember(asked.app->name);
    asked.app->sets.End(idOf(request), isThere ? SetLog::Fate::Forwarded
                                       : text  ? SetLog::Fate::Refused
                                               : SetLog::Fate::Cancelled);
  }
}

std::string CloudMix::check(const Request& request, const Json::Value& answer) {
  if (request.apps.empty() && request.answer.isNull()) {
    return answer["error"].isString() ? "" : "no error";
  }
  if (request.apps.empty()) return answer == request.answer ? "" : "wrong";
  const Json::Value& properties = answer["properties"];
  if (request.isHopeless && !properties.empty()) return "answered";
  if (!properties.isObject() || !answer["result"].isInt()) return "no result";
  std::size_t known = 0;
  for (const AskedApp& asked : request.apps) {
    AppModel::State seen;
    if (properties.isMember(asked.app->name)) {
      seen = properties[asked.app->name].asString();
      ++known;
    }
    if (!asked.app->MayBe(seen, asked.mark)) return asked.app->name + " is wrong";
  }
  if (properties.size() != known) return "more than was asked for";
  const bool all = known == request.apps.size() && !request.asksForNobody;
  return answer["result"] == (all ? kDone : kUnknownProperty) ? "" : "wrong result";
}

unsigned CloudMix::random(unsigned below) {
  return std::uniform_int_distribution<unsigned>(0, below - 1)(m_random);
}

std::vector<CloudMix::AskedApp> CloudMix::someApps() {
  std::vector<AskedApp> asked;
  const unsigned count = 1 + random(kMaxAppsAtOnce);
  const unsigned first = random(static_cast<unsigned>(m_apps.size()));
  for (unsigned i = 0; i < count; ++i) {
    AppModel& app = m_apps[(first + i) % m_apps.size()];
    asked.push_back({&app, app.state.Now()});
  }
  return asked;
}

SetLog::Id CloudMix::idOf(const Request& request) const {
  return SetLog::MakeId(m_index, request.number);
}

}  // namespace Soak
