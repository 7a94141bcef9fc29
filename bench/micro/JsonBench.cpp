// JsonValueAdaptor beside JsonCpp as it is, for documents of the argument's size in bytes:
//
//   json_construct  a copy of a Json::Value
//   json_create     text to value
//   json_to_string  value to compact text
//   json_styled     value to indented text
//   json_type       the type of a value
#include <benchmark/benchmark.h>
#include <json/json.h>

#include <cstddef>
#include <sstream>
#include <string>

#include "Benchmarks.h"
#include "JsonValueAdaptor.h"

namespace Micro {
namespace {

using ThingCommon::JsonValueAdaptor;

struct Ours {
  static constexpr const char* kName = "ours";
  using Value = JsonValueAdaptor;

  static Value Create(const std::string& text) { return JsonValueAdaptor::Create(text); }
  static std::string ToString(const Value& value) { return value.ToString(false); }
  static std::string ToStyledString(const Value& value) { return value.ToString(true); }
  static constexpr auto kObject = JsonValueAdaptor::TYPE_OBJECT;
  static auto Type(const Value& value) { return value.Type(); }
};

struct JsonCpp {
  static constexpr const char* kName = "jsoncpp";
  using Value = Json::Value;

  static Value Create(const std::string& text) {
    Value value;
    std::stringstream stream(text);
    stream >> value;
    return value;
  }
  static std::string ToString(const Value& value) {
    Json::StreamWriterBuilder builder;
    builder["commentStyle"] = "None";
    builder["indentation"] = "";
    return Json::writeString(builder, value);
  }
  static std::string ToStyledString(const Value& value) { return value.toStyledString(); }
  static constexpr auto kObject = Json::objectValue;
  static auto Type(const Value& value) { return value.type(); }
};

// The same document twice, made without the one being turned into the other. The text is compact,
// with its members by name, so that it is also what the value has to be written as.
struct Document {
  Json::Value value;
  std::string text;
};

void appendMember(Document& document, int index) {
  const std::string number = std::to_string(index % 1000);
  std::string name = std::to_string(index);
  name.insert(0, 6 - name.size(), '0').insert(0, "p");
  std::string text;
  Json::Value value;
  switch (index % 4) {
    case 0:
      text = "\"text of member " + number + "\"";
      value = "text of member " + number;
      break;
    case 1:
      text = "-" + number + "75";
      value = -(index % 1000 * 100 + 75);
      break;
    case 2:
      text = number + ".25";
      value = index % 1000 + 0.25;
      break;
    default:
      text = "[" + number + ",\"two\",true,null]";
      value.append(index % 1000);
      value.append("two");
      value.append(true);
      value.append(Json::Value());
      break;
  }
  document.text += ",\"" + name + "\":" + text;
  document.value[name] = value;
}

// An object that is exactly `size` bytes long as text; `size` is 16 or more.
Document makeDocument(std::size_t size) {
  constexpr std::size_t kMaxMember = 48;           // bytes, more than any of appendMember's
  const std::string lastName = R"(,"s":")";        // the last member's text takes what is left
  const std::size_t ending = lastName.size() + 2;  // with the quote and the brace
  Document document;
  document.text = R"({"n":[1])";
  document.value["n"].append(1);
  for (int i = 0; document.text.size() + kMaxMember + ending <= size; ++i) {
    appendMember(document, i);
  }
  const std::string rest(size - ending - document.text.size(), 'x');
  document.text += lastName + rest + "\"}";
  document.value["s"] = rest;
  return document;
}

Document makeDocument(const benchmark::State& state) {
  return makeDocument(static_cast<std::size_t>(state.range(0)));
}

// Times `operation`, provided that what it gives is right; `isRight` says so.
template <typename Operation, typename Check>
void measure(benchmark::State& state, const Operation& operation, const Check& isRight) {
  if (!isRight(operation())) return state.SkipWithError("the result is wrong");
  for (auto _ : state) benchmark::DoNotOptimize(operation());
}

template <typename Library>
void construct(benchmark::State& state) {
  const Document document = makeDocument(state);
  measure(
      state, [&document] { return typename Library::Value(document.value); },
      [&document](const Json::Value& copy) { return copy == document.value; });
}

template <typename Library>
void create(benchmark::State& state) {
  const Document document = makeDocument(state);
  measure(
      state, [&document] { return Library::Create(document.text); },
      [&document](const Json::Value& value) { return value == document.value; });
}

template <typename Library>
void toString(benchmark::State& state) {
  const Document document = makeDocument(state);
  const typename Library::Value value(document.value);
  measure(
      state, [&value] { return Library::ToString(value); },
      [&document](const std::string& text) { return text == document.text; });
}

template <typename Library>
void toStyledString(benchmark::State& state) {
  const Document document = makeDocument(state);
  const typename Library::Value value(document.value);
  measure(
      state, [&value] { return Library::ToStyledString(value); },
      [&document](const std::string& text) {
        return text.rfind("{\n", 0) == 0 && text.back() == '\n' &&
               JsonCpp::Create(text) == document.value;
      });
}

template <typename Library>
void type(benchmark::State& state) {
  const typename Library::Value object{Json::Value(Json::objectValue)};
  measure(
      state, [&object] { return Library::Type(object); },
      [](auto type) { return type == Library::kObject; });
}

template <typename Library>
void registerLibrary() {
  const auto add = [](const std::string& road, void (*function)(benchmark::State&)) {
    return benchmark::RegisterBenchmark((road + "/" + Library::kName).c_str(), function);
  };
  const auto addSizes = [&add](const std::string& road, void (*function)(benchmark::State&)) {
    add(road, function)->Arg(16)->Arg(1024)->Arg(65536)->Arg(1048576);
  };
  addSizes("json_construct", construct<Library>);
  addSizes("json_create", create<Library>);
  addSizes("json_to_string", toString<Library>);
  addSizes("json_styled", toStyledString<Library>);
  add("json_type", type<Library>);
}

}  // namespace

void RegisterJsonBenchmarks() {
  registerLibrary<Ours>();
  registerLibrary<JsonCpp>();
}

}  // namespace Micro
