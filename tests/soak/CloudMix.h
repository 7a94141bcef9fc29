#ifndef TESTS_SOAK_CLOUDMIX_H
#define TESTS_SOAK_CLOUDMIX_H

#include <json/json.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "BusClient.h"
#include "CloudClient.h"
#include "CloudRequester.h"
#include "HostProcess.h"
#include "Model.h"
#include "Tally.h"

namespace Soak {

// What one requester of the cloud asks for, in a random order, some requests at once, with every
// answer checked. One thread at a time uses it. Failures are thrown as std::runtime_error.
class CloudMix {
 public:
  // All that is referred to outlives it. The requester 0 signs the thing in and out, and 1 gives it
  // sign-up information, so that each has one who changes it.
  CloudMix(int port, const std::string& thing, int index, std::deque<AppModel>& apps,
           ThingModel& thingModel, std::uint64_t seed, Tally& tally)
      : m_index(index),
        m_apps(apps),
        m_thing(thingModel),
        m_tally(tally),
        m_random(seed),
        m_requester(port, thing, index, tally) {}

  // Goes on until told to stop, and until all is answered.
  void Run(const std::atomic<bool>& stop) {
    while (!stop) {
      step();
      std::this_thread::sleep_for(std::chrono::microseconds(random(kMaxPauseUs)));
    }
  }

  // How often it has signed the thing in or out since it was asked last.
  unsigned TakeSignins() { return std::exchange(m_signins, 0); }

 private:
  static constexpr int kDone = 0;
  static constexpr int kUnknownProperty = 6;
  static constexpr int kSigner = 0;
  static constexpr int kInformer = 1;
  static constexpr unsigned kMaxAtOnce = 8;        // requests of one requester
  static constexpr unsigned kMaxAppsAtOnce = 3;    // in one request
  static constexpr unsigned kMaxPauseUs = 30'000;  // between two steps
  static constexpr unsigned kLongText = 4'096;     // bytes
  static constexpr const char* kNobody = "nobody";

  static std::string compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
  }

  static Json::Value doneWith(const std::string& properties) {
    return ParseJson(R"({"result": 0, "properties": {)" + properties + "}}");
  }

  struct AskedApp {
    AppModel* app;
    History<AppModel::State>::Mark mark;
  };
  // Of a cancelled set nobody knows whether it is answered; a hopeless one, cancelled as well, is
  // only answered when the application is not there.
  enum class Kind { Plain, Get, Set, CancelledSet, HopelessSet };
  struct Request {
    Kind kind = Kind::Plain;
    CloudRequester::Number number = 0;
    std::vector<AskedApp> apps{};
    bool asksForNobody = false;
    // Of a plain one: the answer, null for any error, and what to do when it is there.
    Json::Value answer{};
    std::function<void()> onAnswer{};

    bool IsCancelled() const { return kind == Kind::CancelledSet || kind == Kind::HopelessSet; }
  };

  void step() {
    const unsigned count = random(3) == 0 ? 1 + random(kMaxAtOnce) : 1;
    std::vector<Request> requests;
    for (unsigned i = 0; i < count; ++i) requests.push_back(sendAny(i == 0));
    // When this one is answered, those before it are answered as well, or never will be.
    if (requests.back().IsCancelled()) requests.push_back(sendForApps(Kind::Get));
    std::stable_partition(requests.begin(), requests.end(),
                          [](const Request& request) { return !request.IsCancelled(); });
    for (const Request& request : requests) finish(request);
  }

  Request sendAny(bool thingMayChange) {
    const unsigned chance = random(100);
    if (chance < 50) return sendForApps(Kind::Get);
    if (chance < 80) return sendForApps(Kind::Set);
    if (chance < 85) return sendForApps(Kind::CancelledSet);
    if (chance < 88) return sendForApps(Kind::HopelessSet);
    if (chance < 90) return plain(m_requester.Send("set", R"({"qz": )"));
    if (chance < 93) {
      return plain(m_requester.Send("get", R"(["signinStatus"])"),
                   doneWith(R"("signinStatus": "")"));
    }
    if (thingMayChange && m_index == kSigner) return sendSignin();
    if (thingMayChange && m_index == kInformer) return sendSignup();
    return sendForApps(Kind::Get);
  }

  Request sendForApps(Kind kind) {
    Request request;
    request.kind = kind;
    request.number = m_requester.NextNumber();
    request.apps = someApps();
    request.asksForNobody = kind != Kind::HopelessSet && random(20) == 0;
    std::string text = std::to_string(idOf(request));
    if (random(50) == 0) text.append(":").append(random(kLongText), 'x');
    Json::Value value(text);
    if (kind == Kind::HopelessSet) {
      request.apps.resize(1);
      value = ParseJson(R"({"volume": 9})");
    }
    Json::Value names(Json::arrayValue);
    for (const AskedApp& asked : request.apps) {
      names.append(asked.app->name);
      if (hasEvents(request)) asked.app->sets.Begin(idOf(request));
    }
    if (request.asksForNobody) names.append(kNobody);
    if (kind == Kind::Get) {
      m_requester.Send("get", compact(names));
      return request;
    }
    Json::Value values;
    for (const Json::Value& name : names) values[name.asString()] = value;
    m_requester.Send("set", compact(values));
    if (request.IsCancelled()) m_requester.Cancel(request.number);
    return request;
  }

  Request sendSignin() {
    const bool signsOut = m_thing.signedIn.Last() == "(true,)";
    m_thing.signedIn.Begin(signsOut ? "(false,)" : "(true,)");
    const char* const payload =
        signsOut ? R"({"signinStatus": false})" : R"({"signinStatus": true})";
    return plain(m_requester.Send("set", payload), doneWith(""), [this] {
      m_thing.signedIn.End();
      ++m_signins;
    });
  }

  Request sendSignup() {
    Json::Value values(Json::objectValue);
    values["signupInfo"]["user"] = "user " + std::to_string(m_requester.NextNumber());
    const BusClient::VariantPtr reply(
        g_variant_ref_sink(g_variant_new("(s)", values["signupInfo"].toStyledString().c_str())));
    m_thing.signupInfo.Begin(BusClient::Print(reply.get()));
    return plain(m_requester.Send("set", compact(values)), doneWith(""),
                 [this] { m_thing.signupInfo.End(); });
  }

  static Request plain(CloudRequester::Number number, Json::Value answer = {},
                       std::function<void()> onAnswer = {}) {
    Request request;
    request.number = number;
    request.answer = std::move(answer);
    request.onAnswer = std::move(onAnswer);
    return request;
  }

  void finish(const Request& request) {
    const std::optional<std::string> text = m_requester.WaitForAnswer(
        request.number,
        request.IsCancelled() ? std::chrono::milliseconds(0) : HostProcess::kPatience);
    if (!text && !request.IsCancelled()) {
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
    if (!hasEvents(request)) return;
    for (const AskedApp& asked : request.apps) {
      const bool isThere = text && answer["properties"].isMember(asked.app->name);
      asked.app->sets.End(idOf(request), isThere ? SetLog::Fate::Forwarded
                                         : text  ? SetLog::Fate::Refused
                                                 : SetLog::Fate::Cancelled);
    }
  }

  // What is wrong with the answer; empty when nothing is.
  static std::string check(const Request& request, const Json::Value& answer) {
    if (request.kind == Kind::Plain && request.answer.isNull()) {
      return answer["error"].isString() ? "" : "no error";
    }
    if (request.kind == Kind::Plain) return answer == request.answer ? "" : "wrong";
    const Json::Value& properties = answer["properties"];
    if (request.kind == Kind::HopelessSet && !properties.empty()) return "answered";
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

  unsigned random(unsigned below) {
    return std::uniform_int_distribution<unsigned>(0, below - 1)(m_random);
  }

  std::vector<AskedApp> someApps() {
    std::vector<AskedApp> asked;
    const unsigned count = 1 + random(kMaxAppsAtOnce);
    const unsigned first = random(static_cast<unsigned>(m_apps.size()));
    for (unsigned i = 0; i < count; ++i) {
      AppModel& app = m_apps[(first + i) % m_apps.size()];
      asked.push_back({&app, app.state.Now()});
    }
    return asked;
  }

  static bool hasEvents(const Request& request) {
    return request.kind == Kind::Set || request.kind == Kind::CancelledSet;
  }

  SetLog::Id idOf(const Request& request) const { return SetLog::MakeId(m_index, request.number); }

  const int m_index;
  std::deque<AppModel>& m_apps;
  ThingModel& m_thing;
  Tally& m_tally;
  std::mt19937_64 m_random;
  CloudRequester m_requester;
  unsigned m_signins = 0;
};

}  // namespace Soak

#endif  // TESTS_SOAK_CLOUDMIX_H
