// What reaches the stand-in device service from the broker and from its environment.
//
// The first letter of the input says what the rest is:
//   j      JSON text
//   n      a number, as JSON writes it
//   p, g   the payload of a set, of a get
//   v      values of properties, one per line: s TEXT, j JSON, y BYTES, i NUMBER, d NUMBER, D and
//          the eight bytes of a double
//   b      Base64 text and bytes
//   u      UTF-8 text
//   l      topics: a thing, a service, a property and any topic, one per line
//   e      the environment: lines of a digit, which names the variable, and a value
//   m      messages of the broker, and what the plug-in does with its requests; see Conversation
#include <gio/gio.h>
#include <mosquitto.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Conversation.h"
#include "Input.h"
#include "Judges.h"
#include "Require.h"
#include "link/Topics.h"
#include "payload/Base64.h"
#include "payload/Json.h"
#include "payload/Payload.h"
#include "settings/Settings.h"
#include "values/TopicText.h"
#include "values/Utf8.h"

namespace {

using namespace fuzz;
using namespace Lumo;

constexpr std::size_t kMaxSteps = 100;

// --- texts ---------------------------------------------------------------------------------------

void checkUtf8(std::string_view text) {
  RequireEqual(IsUtf8(text), JudgeUtf8(text), "UTF-8 is what GLib takes for it");
  const std::size_t length = Utf8CharacterLength(text);
  Require(length <= text.size(), "a character ends in the text");
  Require(JudgeUtf8(text.substr(0, length)), "a character is UTF-8");
  Require(length > 0 || text.empty() || !JudgeUtf8(text), "UTF-8 begins with a character");
}

void checkError(const std::string& error) {
  Require(!error.empty(), "an error says what is wrong");
  RequirePayload(EncodeError(error));
}

void checkBase64(const std::string& text) {
  const std::optional<std::string> bytes = DecodeBase64(text);
  if (bytes) RequireEqual(EncodeBase64(*bytes), text, "only what is written is read");
  const std::string written = EncodeBase64(text);
  RequireEqual(DecodeBase64(written), std::optional<std::string>(text), "what is written is read");
  RequireEqual(written, WriteBase64(text), "Base64 is what OpenSSL writes");
}

// --- JSON and payloads ---------------------------------------------------------------------------

void checkItem(const JsonItem& item, std::string_view document) {
  Require(JudgeUtf8(item.name) && JudgeUtf8(item.text), "names and texts are UTF-8");
  Require(item.depth > 0 || item.name.empty(), "a document has no name");
  if (item.kind != JsonKind::Array && item.kind != JsonKind::Object) return;
  Require(item.text.data() >= document.data() &&
              item.text.data() + item.text.size() <= document.data() + document.size(),
          "what is written is a part of the document");
  const bool isObject = item.kind == JsonKind::Object;
  Require(item.text.front() == (isObject ? '{' : '[') && item.text.back() == (isObject ? '}' : ']'),
          "an array or object is written as a whole");
  // Not of every level, which would take long.
  if (item.depth < 3) Require(JudgeJson(item.text).isJson, "an array or object is JSON");
}

void checkJson(std::string_view text) {
  bool isWhole = false;
  const std::string error = ReadJson(text, [&](const JsonItem& item) {
    Require(!isWhole, "the document itself comes last");
    isWhole = item.depth == 0;
    checkItem(item, text);
  });
  RequireEqual(IsJson(text), error.empty(), "JSON is what can be read");
  const JsonJudgement judgement = JudgeJson(text);
  if (error.empty()) {
    Require(isWhole, "a document is told of");
    Require(judgement.isJson && JudgeUtf8(text), "only JSON is taken");
    Require(judgement.depth <= 100, "what is nested too deep is refused");
    return;
  }
  checkError(error);
  const bool mayBeRefused = !judgement.isJson || !JudgeUtf8(text) || judgement.depth > 100 ||
                            judgement.hasSurrogateEscape || judgement.hasLargeNumber;
  if (!mayBeRefused) Break("JSON is taken", error);
}

bool isSame(const PropertyValue& a, const PropertyValue& b) {
  if (a.index() != b.index()) return false;
  if (const auto* number = std::get_if<double>(&a)) {
    return std::memcmp(number, &std::get<double>(b), sizeof *number) == 0;
  }
  if (const auto* json = std::get_if<JsonText>(&a)) return json->text == std::get<JsonText>(b).text;
  if (const auto* bytes = std::get_if<Bytes>(&a)) return bytes->data == std::get<Bytes>(b).data;
  if (const auto* text = std::get_if<std::string>(&a)) return *text == std::get<std::string>(b);
  if (const auto* flag = std::get_if<bool>(&a)) return *flag == std::get<bool>(b);
  return std::get<int>(a) == std::get<int>(b);
}

std::string writeSet(const Properties& properties) {
  std::string payload = "{";
  for (const Property& property : properties) {
    if (payload.size() > 1) payload += ",";
    AppendJsonString(payload, property.name);
    payload += ":" + EncodeValue(property.value);
  }
  return payload + "}";
}

void checkSet(std::string_view payload) {
  const Decoded<Properties> decoded = DecodeProperties(payload);
  if (!decoded.value) {
    checkError(decoded.error);
    return;
  }
  Require(JudgeJson(payload).isJson, "only JSON is a request");
  for (const Property& property : *decoded.value) {
    Require(JudgeUtf8(property.name), "a name is a text");
    if (const auto* text = std::get_if<std::string>(&property.value)) {
      Require(JudgeUtf8(*text), "a text is a text");
    } else if (const auto* json = std::get_if<JsonText>(&property.value)) {
      const bool isWhole = JudgeJson(json->text).isJson && !json->text.empty() &&
                           (json->text.front() == '{' || json->text.front() == '[');
      if (!isWhole) Break("an object or array is the text that it was sent as", Show(json->text));
    }
  }
  RequirePayload(EncodeResult(0, *decoded.value));

  const std::string again = writeSet(*decoded.value);
  if (again.size() > kMaxRequestBytes) return;
  const Decoded<Properties> decodedAgain = DecodeProperties(again);
  if (!decodedAgain.value) Break("what was read is written to be read", decodedAgain.error);
  RequireEqual(decodedAgain.value->size(), decoded.value->size(), "no property is lost");
  for (std::size_t i = 0; i < decoded.value->size(); ++i) {
    const Property& before = (*decoded.value)[i];
    const Property& after = (*decodedAgain.value)[i];
    RequireEqual(after.name, before.name, "a name is read as it was written");
    if (!isSame(after.value, before.value)) Break("a value is read as it was written", again);
  }
}

// The reader estimates how large a number is: it refuses 0e309, and 1 behind 308 digits with e-308.
bool seemsLarge(const std::string& number) {
  constexpr long kMaxExponent = 308;
  const std::size_t exponent = number.find_first_of("eE");
  return number.size() > kMaxExponent ||
         (exponent != std::string::npos &&
          std::strtol(number.c_str() + exponent + 1, nullptr, 10) > kMaxExponent);
}

// What becomes of a number is for its text to say: the C library is asked what it stands for.
void checkNumber(const std::string& text) {
  const bool isNumber =
      JudgeJson(text).isJson && text.find_first_not_of("+-.0123456789eE") == std::string::npos;
  if (!isNumber) return;
  const Decoded<Properties> decoded = DecodeProperties("{\"n\":" + text + "}");
  if (text.find_first_of(".eE") == std::string::npos) {
    errno = 0;
    const long long number = std::strtoll(text.c_str(), nullptr, 10);
    const bool fits = errno == 0 && number >= INT32_MIN && number <= INT32_MAX;
    RequireEqual(decoded.value.has_value(), fits, "an integer has 32 bits");
    if (fits)
      RequireEqual<long long>(std::get<int>(decoded.value->at(0).value), number,
                              "an integer is its number");
    return;
  }
  const double number = std::strtod(text.c_str(), nullptr);
  if (!decoded.value) {
    Require(!std::isfinite(number) || seemsLarge(text), "a number within a double is taken");
    return;
  }
  Require(std::isfinite(number), "a number is finite");
  if (!isSame(decoded.value->at(0).value, number)) Break("a double is its number", text);
}

void checkGet(std::string_view payload) {
  const Decoded<std::vector<std::string>> decoded = DecodeNames(payload);
  if (!decoded.value) {
    checkError(decoded.error);
    return;
  }
  Require(JudgeJson(payload).isJson, "only JSON is a request");
  for (const std::string& name : *decoded.value) Require(JudgeUtf8(name), "a name is a text");
}

void checkValues(Input& input) {
  Properties properties;
  std::map<std::string, lumo_property_type> types;
  for (std::size_t step = 0; step < kMaxSteps && !input.AtEnd(); ++step) {
    const char letter = input.Letter();
    if (std::string("sjyidD").find(letter) == std::string::npos) continue;
    PropertyValue value = false;
    if (letter == 'D') {
      double number = 0;
      std::array<char, sizeof number> bytes{};
      for (char& byte : bytes) byte = input.Letter();
      std::memcpy(&number, bytes.data(), sizeof number);
      value = number;
    } else {
      input.Field();
      if (letter == 'i') value = input.Number();
      if (letter == 'd') value = static_cast<double>(input.Number()) / 3;
      if (letter == 's') value = input.Line();
      if (letter == 'j') value = JsonText{input.Line()};
      if (letter == 'y') value = Lumo::Bytes{input.Line()};
    }
    const std::string json = EncodeValue(value);
    RequirePayload(json);
    if (const auto* number = std::get_if<double>(&value)) {
      double read = std::nan("");
      Require(ReadJson(json, [&read](const JsonItem& item) { read = item.real; }).empty(),
              "a number that is written can be read");
      if (std::isfinite(*number)) RequireEqual(read, *number, "it is the same number");
    }
    properties.push_back({"n" + std::to_string(properties.size() % 8), value});
    types[properties.back().name] = properties.back().Type();
  }
  RequirePayload(EncodeResult(static_cast<lumo_error>(properties.size()), properties));
  RequirePayload(EncodeDescription(types));
}

// --- topics --------------------------------------------------------------------------------------

void checkTopics(Input& input) {
  const std::string thing = input.Line();
  const std::string service = input.Line();
  const std::string property = input.Line();
  const std::string topic = input.Line();
  for (const std::string* level : {&thing, &service, &property}) {
    if (!IsTopicLevel(*level)) return;
    Require(JudgeTopic(*level) && level->find('/') == std::string::npos,
            "a level is part of a topic");
  }

  const Topics topics(thing, service);
  const std::string below = "things/" + thing + "/" + service + "/";
  for (const std::string& own : {topics.Status(), topics.Description(), topics.Get(), topics.Set(),
                                 topics.Cancel(), topics.Value(property)}) {
    Require(JudgeTopic(own), "the service's topics are topics");
    Require(!topics.MayAnswerTo(own), "no answer goes where the service speaks or listens");
  }
  RequireEqual(topics.PropertyOf(topics.Value(property)), std::optional<std::string>(property),
               "the topic of a value leads to its property");
  bool matches = false;
  mosquitto_topic_matches_sub(topics.AllValues().c_str(), topics.Value(property).c_str(), &matches);
  Require(matches, "all values are subscribed to");

  RequireEqual(topics.PropertyOf(topic).has_value(), topic.rfind(below + "value/", 0) == 0,
               "only the topic of a value has a property");
  if (!topics.MayAnswerTo(topic)) return;
  if (!JudgeTopic(topic)) Break("an answer can be published", Show(topic));
  Require(topic.rfind(below, 0) != 0 && topic[0] != '$', "an answer goes to others' topics");
  matches = false;
  for (const char* ofThings :
       {"things/+/+/get", "things/+/+/set", "things/+/+/cancel", "things/+/status",
        "things/+/health", "things/+/+/properties", "things/+/+/value/+"}) {
    mosquitto_topic_matches_sub(ofThings, topic.c_str(), &matches);
    Require(!matches, "an answer is not taken for something else");
  }
}

// --- the environment -----------------------------------------------------------------------------

constexpr std::array<const char*, 9> kVariables = {"LUMO_BROKER",
                                                   "LUMO_THING_ID",
                                                   "LUMO_BROKER_CA",
                                                   "LUMO_BROKER_CERT",
                                                   "LUMO_BROKER_KEY",
                                                   "LUMO_BROKER_USER",
                                                   "LUMO_BROKER_PASSWORD_FILE",
                                                   "LUMO_REQUEST_TIMEOUT_MS",
                                                   "LUMO_ALLOW_PLAINTEXT"};
constexpr std::string_view kSecret = "s3cret-of-the-thing";

// A file that holds a text, as long as this lives.
class MemoryFile {
 public:
  explicit MemoryFile(const std::string& text) : m_descriptor(memfd_create("fuzz", MFD_CLOEXEC)) {
    Require(write(m_descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size()),
            "a file in memory can be written");
  }
  ~MemoryFile() { close(m_descriptor); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  std::string Path() const { return "/proc/self/fd/" + std::to_string(m_descriptor); }

 private:
  const int m_descriptor;
};

bool isLoopback(const std::string& host) {
  if (g_ascii_strcasecmp(host.c_str(), "localhost") == 0) return true;
  const std::unique_ptr<GInetAddress, void (*)(gpointer)> address(
      g_inet_address_new_from_string(host.c_str()), g_object_unref);
  return address != nullptr && g_inet_address_get_is_loopback(address.get()) != FALSE;
}

void checkBroker(const BrokerSettings& broker, std::map<std::string, std::string> variables) {
  Require(!broker.host.empty() && broker.port > 0 && broker.port <= 65535,
          "a broker has a host and a port");
  Require(variables["LUMO_BROKER"].rfind(broker.tls ? "mqtts://" : "mqtt://", 0) == 0,
          "the broker is reached as the address says");
  Require(variables["LUMO_BROKER"].find(broker.host) != std::string::npos,
          "the host is the address's");
  Require(IsTopicLevel(broker.thingId) && broker.thingId.size() <= 64, "a thing has a name");
  Require(broker.tls || variables["LUMO_ALLOW_PLAINTEXT"] == "1" || isLoopback(broker.host),
          "nothing goes over the network in plain text unless it is allowed");
  Require(broker.certificateFile.empty() == broker.keyFile.empty(), "a certificate has its key");
  Require(broker.tls || (broker.authorityFile.empty() && broker.certificateFile.empty()),
          "TLS files are for TLS");
  Require(broker.password.empty() || !broker.user.empty(), "a password is a user's");
  Require(broker.password.find('\0') == std::string::npos, "a password is a text");
}

void checkEnvironment(Input& input) {
  std::map<std::string, std::string> variables;
  std::vector<std::unique_ptr<MemoryFile>> files;
  for (std::size_t step = 0; step < kMaxSteps && !input.AtEnd() && files.size() < 8; ++step) {
    const std::string variable = kVariables[input.Choice(kVariables.size())];
    std::string value = input.Line();
    // Files: one that holds the value, a folder or none at all.
    static const std::set<std::string> kFiles = {"LUMO_BROKER_CA", "LUMO_BROKER_CERT",
                                                 "LUMO_BROKER_KEY", "LUMO_BROKER_PASSWORD_FILE"};
    const bool isFile = kFiles.count(variable) != 0;
    if (isFile && !value.empty() && value != "/" && value != "missing") {
      files.push_back(std::make_unique<MemoryFile>(value));
      value = files.back()->Path();
    }
    variables[variable] = value.c_str();
  }
  std::string error;
  const auto settings = Settings::Read(
      [&variables](const char* name) {
        const auto found = variables.find(name);
        return found == variables.end() ? nullptr : found->second.c_str();
      },
      error);
  if (!settings) {
    Require(error.rfind("LUMO_", 0) == 0, "an error names its variable");
    Require(error.find(kSecret) == std::string::npos ||
                variables["LUMO_BROKER"].find('@') == std::string::npos,
            "no secret is in an error");
    return;
  }
  RequireEqual(settings->Broker().has_value(), !variables["LUMO_BROKER"].empty(),
               "there is a broker when one is set");
  if (settings->Broker()) checkBroker(*settings->Broker(), variables);
  const auto timeout = settings->RequestTimeout().count();
  Require(timeout >= 100 && timeout <= 600'000, "a request has some time, and not for ever");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The rest is exactly what it is, so that a read beyond it is seen.
  static const std::map<char, void (*)(Input&)> kChecks = {
      {'j', [](Input& input) { checkJson(input.Rest()); }},
      {'n', [](Input& input) { checkNumber(std::string(input.Rest())); }},
      {'p', [](Input& input) { checkSet(input.Rest()); }},
      {'g', [](Input& input) { checkGet(input.Rest()); }},
      {'v', checkValues},
      {'b', [](Input& input) { checkBase64(std::string(input.Rest())); }},
      {'u', [](Input& input) { checkUtf8(input.Rest()); }},
      {'l', checkTopics},
      {'e', checkEnvironment},
      {'m', [](Input& input) { Conversation(input).Run(); }}};
  Input input(data, size);
  const auto check = kChecks.find(input.Letter());
  if (check != kChecks.end()) check->second(input);
  return 0;
}
