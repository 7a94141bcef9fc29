// request_list: what a get request costs beside its handler's own work. The request's list of N
// text properties is read, and an answer list with the same properties is made and freed: by
// LumoWrapper through JSON values, and by a loop over the library's operations.
#include <benchmark/benchmark.h>
#include <lumo.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Benchmarks.h"
#include "JsonValueAdaptor.h"
#include "LumoWrapper.h"

namespace Micro {
namespace {

using ThingCommon::JsonValueAdaptor;
using ThingCommon::LumoWrapper;

struct FreeList {
  // The library frees a list only as part of an answer, and then without a service, too.
  void operator()(void* list) const noexcept {
    lumo_service_send_get_property_result(nullptr, nullptr, list, 0);
  }
};
using ListPtr = std::unique_ptr<void, FreeList>;

lumo_string viewOf(const std::string& text) {
  return lumo_string_new(text.data(), text.size());
}

void push(void* list, const std::string& name, const std::string& text) {
  lumo_property_list_push_property(list, lumo_property_create_string(viewOf(name), viewOf(text)),
                                   0);
}

// One after the other.
std::vector<std::pair<std::string, std::string>> readTexts(void* list) {
  std::vector<std::pair<std::string, std::string>> texts;
  for (void* property = lumo_property_list_get_first(list); property != nullptr;
       property = lumo_property_list_get_next(list, property)) {
    if (lumo_property_get_type(property) != LUMO_PROPERTY_TYPE_STRING) continue;
    const lumo_string name = lumo_property_get_name(property);
    const lumo_string text = lumo_property_get_string(property);
    texts.emplace_back(std::string(name.data, name.length), std::string(text.data, text.length));
  }
  return texts;
}

struct Ours {
  static constexpr const char* kName = "ours";

  static ListPtr Answer(void* list) {
    JsonValueAdaptor response;
    for (const JsonValueAdaptor& item : LumoWrapper::getPropertyListFromLumoList(list)) {
      for (const std::string& name : item.getMemberNames()) response[name] = item[name];
    }
    return ListPtr(LumoWrapper::convertPropertyToLumoList(response));
  }
};

struct Loop {
  static constexpr const char* kName = "loop";

  static ListPtr Answer(void* list) {
    const std::vector<std::pair<std::string, std::string>> texts = readTexts(list);
    ListPtr answer(lumo_property_list_create());
    for (const auto& [name, text] : texts) push(answer.get(), name, text);
    return answer;
  }
};

// The names and texts of a request, and the list with them.
struct Request {
  std::map<std::string, std::string> texts;
  ListPtr list{lumo_property_list_create()};
};

Request makeRequest(std::int64_t count) {
  Request request;
  for (std::int64_t i = 0; i < count; ++i) {
    const std::string name = "app" + std::to_string(i);
    std::string text = "the data of " + name;
    text.resize(32, '.');
    push(request.list.get(), name, text);
    request.texts.emplace(name, text);
  }
  return request;
}

// Each property once; the order is each implementation's own.
bool isAnswer(void* list, const Request& request) {
  const auto texts = readTexts(list);
  return texts.size() == request.texts.size() &&
         std::map<std::string, std::string>(texts.begin(), texts.end()) == request.texts;
}

template <typename Implementation>
void requestList(benchmark::State& state) {
  const Request request = makeRequest(state.range(0));
  if (!isAnswer(Implementation::Answer(request.list.get()).get(), request)) {
    return state.SkipWithError("the answer is wrong");
  }
  for (auto _ : state) benchmark::DoNotOptimize(Implementation::Answer(request.list.get()).get());
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename Implementation>
void registerImplementation() {
  const std::string name = std::string("request_list/") + Implementation::kName;
  benchmark::RegisterBenchmark(name.c_str(), requestList<Implementation>)
      ->RangeMultiplier(10)
      ->Range(1, 10000);
}

}  // namespace

void RegisterRequestListBenchmarks() {
  registerImplementation<Ours>();
  registerImplementation<Loop>();
}

}  // namespace Micro
