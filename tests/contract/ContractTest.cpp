// What the contract lets pass, and that every kind of break is noticed.
#include "Contract.h"

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "ContractLedger.h"

namespace {

using Lines = std::vector<std::string>;
using Message = Contract::Message;
using Properties = Contract::Properties;

constexpr const char* kValue = "things/tv/appdatachannel/value/qz";
constexpr const char* kSet = "things/tv/appdatachannel/set";
constexpr const char* kRun = "0b6f2f0e-4d1c-4f6a-9a53-5e4f0d6a7c21";
constexpr const char* kOtherRun = "f4f7c9b6-1a52-4e0b-8d0c-3b2a1c0d9e8f";
constexpr const char* kDone = R"({"result": 0, "properties": {}})";

Properties ofJson() {
  Properties properties;
  properties.contentType = "application/json";
  properties.payloadFormatIndicator = 1;
  return properties;
}

Properties ofState() {
  Properties properties = ofJson();
  properties.userProperties = {
      {"time", "2026-11-22T08:03:45.123Z"}, {"run", kRun}, {"version", "1.0.0"}};
  return properties;
}

Properties ofValue(const std::string& sequence = "1", const std::string& run = kRun) {
  Properties properties = ofJson();
  properties.userProperties = {{"time", "2026-11-22T08:03:45.123Z"},
                               {"sequence", sequence},
                               {"run", run},
                               {"version", "1.0.0"}};
  return properties;
}

Message value(const Properties& properties = ofValue()) {
  return {kValue, R"("volume 7")", 1, true, properties};
}

Message setOf(const std::string& correlation, std::string_view payload) {
  Properties properties;
  properties.responseTopic = "cloud/answers";
  properties.correlationData = correlation;
  return {kSet, payload, 2, false, properties};
}

Message answerTo(const std::string& correlation, std::string_view payload) {
  Properties properties = ofJson();
  properties.correlationData = correlation;
  return {"cloud/answers", payload, 1, false, properties};
}

// What is wrong with them, one after the other.
Lines violationsOf(const std::vector<Message>& messages, bool hasGap = false) {
  ContractLedger ledger(Contract::OfProject());
  if (hasGap) ledger.NoteGap();
  for (const Message& message : messages) ledger.Take(message);
  return ledger.TakeViolations();
}

TEST(ContractTest, EachExampleIsOneOfItsMessage) {
  EXPECT_EQ(Lines(), Contract::OfProject().FaultsOfExamples());
}

TEST(ContractTest, WhatTheThingSendsPasses) {
  Properties ofWill = ofState();
  ofWill.userProperties.erase(ofWill.userProperties.begin());
  EXPECT_EQ(Lines(), violationsOf({{"things/tv/status", R"("online")", 1, true, ofState()},
                                   {"things/tv/status", R"("offline")", 1, true, ofState()},
                                   {"things/tv/status", R"("offline")", 1, true, ofWill},
                                   {"things/tv/appdatachannel/properties",
                                    R"({"signinStatus": {"type": "bool"},
                                        "signupInfo": {"type": "json"}})",
                                    1, true, ofState()},
                                   value(),
                                   {kValue, "", 1, true},
                                   setOf("1", R"({"qz": "1"})"),
                                   answerTo("1", kDone)}));
}

struct Break {
  const char* name;
  std::vector<Message> messages;
  std::string fault;  // how the violation ends

  friend void PrintTo(const Break& one, std::ostream* out) { *out << one.name; }
};

Message changed(Message message, const std::function<void(Message&)>& change) {
  change(message);
  return message;
}

Message valueWith(const std::function<void(Properties&)>& change) {
  return changed(value(), [&change](Message& message) { change(message.properties); });
}

Message valueWithUserProperty(std::size_t index, const std::string& text) {
  return valueWith([&](Properties& properties) { properties.userProperties[index].second = text; });
}

std::vector<Break> breaks() {
  const std::string required = "MQTT properties: Missing required property '";
  const std::string requiredUser = "MQTT properties: [userProperties] Missing required property '";
  const auto withoutUserProperty = [](std::size_t index) {
    return valueWith([index](Properties& properties) {
      properties.userProperties.erase(properties.userProperties.begin() +
                                      static_cast<std::ptrdiff_t>(index));
    });
  };
  return {
      {"UnknownTopic",
       {{"things/tv/else", "1", 1, true}},
       "a topic that the contract does not have"},
      {"TopicOfNoLevel",
       {{"things/tv/appdatachannel/value/", R"("a")", 1, true, ofValue()}},
       "a topic that the contract does not have"},
      {"Payload",
       {changed(value(), [](Message& message) { message.payload = "1"; })},
       "a payload that the contract does not have"},
      {"NoJson",
       {changed(value(), [](Message& message) { message.payload = "volume 7"; })},
       "a payload that the contract does not have: no JSON"},
      {"Qos", {changed(value(), [](Message& message) { message.qos = 0; })}, "QoS 0"},
      {"Retain",
       {changed(value(), [](Message& message) { message.retain = false; })},
       "retain is not set"},
      {"RetainedAnswer",
       {setOf("1", "{}"),
        changed(answerTo("1", kDone), [](Message& message) { message.retain = true; })},
       "retain is set"},
      {"MissingContentType",
       {valueWith([](Properties& properties) { properties.contentType.reset(); })},
       required + "contentType'"},
      {"WrongContentType",
       {valueWith([](Properties& properties) { properties.contentType = "text/plain"; })},
       "[contentType]"},
      {"MissingPayloadFormatIndicator",
       {valueWith([](Properties& properties) { properties.payloadFormatIndicator.reset(); })},
       required + "payloadFormatIndicator'"},
      {"WrongPayloadFormatIndicator",
       {valueWith([](Properties& properties) { properties.payloadFormatIndicator = 0; })},
       "[payloadFormatIndicator]"},
      {"AdditionalResponseTopic",
       {valueWith([](Properties& properties) { properties.responseTopic = "a"; })},
       "'responseTopic'"},
      {"AdditionalProperty",
       {valueWith([](Properties& properties) { properties.others = {"message-expiry-interval"}; })},
       "'message-expiry-interval'"},
      {"PropertyOfEmptyMessage", {{kValue, "", 1, true, ofJson()}}, "MQTT properties"},
      {"MissingUserProperties", {value(ofJson())}, required + "userProperties'"},
      {"MissingTime", {withoutUserProperty(0)}, requiredUser + "time'"},
      {"MissingSequence", {withoutUserProperty(1)}, requiredUser + "sequence'"},
      {"MissingRun", {withoutUserProperty(2)}, requiredUser + "run'"},
      {"MissingVersion", {withoutUserProperty(3)}, requiredUser + "version'"},
      {"WrongTime", {valueWithUserProperty(0, "2026-11-22T08:03:45Z")}, "[time]"},
      {"WrongSequence", {valueWithUserProperty(1, "0")}, "[sequence]"},
      {"WrongRun", {valueWithUserProperty(2, "1")}, "[run]"},
      {"WrongVersion", {valueWithUserProperty(3, "one")}, "[version]"},
      {"AdditionalUserProperty",
       {valueWith(
           [](Properties& properties) { properties.userProperties.emplace_back("a", "1"); })},
       "'a'"},
      {"UserPropertyTwice",
       {valueWith(
           [](Properties& properties) { properties.userProperties.emplace_back("run", kRun); })},
       "the User Property run comes twice"},
      {"UserPropertyOfAnswer",
       {setOf("1", "{}"), changed(answerTo("1", kDone),
                                  [](Message& message) {
                                    message.properties.userProperties = {{"run", kRun}};
                                  })},
       "'userProperties'"},
      {"OnlineWithoutTime",
       {{"things/tv/status", R"("online")", 1, true,
         [] {
           Properties properties = ofState();
           properties.userProperties.erase(properties.userProperties.begin());
           return properties;
         }()}},
       requiredUser + "time'"},
      {"SequenceGoesBack",
       {value(ofValue("2")), value(ofValue("1"))},
       "the sequence goes back to 1"},
      {"OtherValueOfSequence",
       {value(), changed(value(), [](Message& message) { message.payload = R"("volume 8")"; })},
       "another value of sequence 1"},
      {"AnswerWithoutRequest", {setOf("1", "{}"), answerTo("2", kDone)}, "an answer to no request"},
      {"AnswerElsewhere",
       {setOf("1", "{}"),
        changed(answerTo("1", kDone), [](Message& message) { message.topic = "elsewhere"; })},
       "a topic that the contract does not have"},
      {"AnswerWithoutContentType",
       {setOf("1", "{}"),
        changed(answerTo("1", kDone),
                [](Message& message) { message.properties.contentType.reset(); })},
       required + "contentType'"},
      {"InvalidRequestCarriedOut",
       {setOf("1", R"({"qz": null})"), answerTo("1", kDone)},
       "a request that the contract does not have is carried out"},
      {"ValidRequestRefused",
       {setOf("1", R"({"qz": "1"})"), answerTo("1", R"({"error": "qz: null"})")},
       "a request of the contract is refused"},
      {"ValidRequestRefusedBeforeItCame",
       {answerTo("1", R"({"error": "not UTF-8"})"), setOf("1", R"({"qz": "1"})")},
       "a request of the contract is refused"},
  };
}

class ContractBreakTest : public ::testing::TestWithParam<Break> {};

TEST_P(ContractBreakTest, IsNoticed) {
  const Lines violations = violationsOf(GetParam().messages);
  ASSERT_EQ(1U, violations.size()) << ::testing::PrintToString(violations);
  EXPECT_NE(std::string::npos, violations[0].find(GetParam().fault)) << violations[0];
}

INSTANTIATE_TEST_SUITE_P(Kinds, ContractBreakTest, ::testing::ValuesIn(breaks()),
                         [](const ::testing::TestParamInfo<Break>& one) { return one.param.name; });

TEST(ContractTest, ARepetitionAGapAndAnotherRunAreNoBreak) {
  EXPECT_EQ(Lines(), violationsOf({value(ofValue("1")), value(ofValue("5")), value(ofValue("1")),
                                   value(ofValue("5")), value(ofValue("1", kOtherRun)),
                                   value(ofValue("6"))}));
}

TEST(ContractTest, AnAnswerMayComeBeforeItsRequestAndTwice) {
  EXPECT_EQ(Lines(), violationsOf({answerTo("1", kDone), setOf("1", R"({"qz": "1"})"),
                                   answerTo("1", kDone)}));
}

TEST(ContractTest, ARequestThatWasMissedExcusesItsAnswerAndNothingElse) {
  EXPECT_EQ(Lines(), violationsOf({answerTo("1", kDone)}, true));
  EXPECT_EQ(1U, violationsOf({{"things/tv/else", kDone, 1, false, ofJson()}}, true).size());
  EXPECT_EQ(1U, violationsOf({{"elsewhere", "1", 1, false, ofJson()}}, true).size());
  EXPECT_EQ(
      1U,
      violationsOf({changed(answerTo("1", kDone), [](Message& message) { message.qos = 0; })}, true)
          .size());
}

TEST(ContractTest, ARequestIsWhatItsSchemaSays) {
  const std::string base64(std::size_t{4} * 50'000, 'x');
  const std::string longText(262'000, 'x');
  const struct {
    std::string payload;
    bool fits;
  } sets[] = {
      {R"({})", true},
      {R"({"qz": "ä \u00e4 \ud83d\ude00", "qmap": -2147483648, "signinStatus": true})", true},
      {R"({"qz": 1.5, "qmap": 1e300, "a": 1.0})", true},
      {R"({"qz": {"a": null}, "b": [null, 12345678901234567890]})", true},
      {R"({"qz": {"$bytes": "QUI="}})", true},
      {R"({"qz": {"$bytes": ")" + base64 + R"("}})", true},
      {R"({"qz": ")" + longText + R"("})", true},
      {R"({"qz": {"$bytes": ")" + base64 + R"(x"}})", false},
      {R"({"qz": {"$bytes": "QUI"}})", false},
      {R"({"qz": {"$bytes": 7}})", false},
      {R"({"qz": null})", false},
      {R"({"qz": 2147483648})", false},
      {R"({"qz": -123456789012345678901234567890})", false},
      {R"({"qz": "\u0000"})", false},
      {R"({"\u0000": "a"})", false},
      {R"({"qz": "\udc00"})", false},
      {R"({"qz": 1e999})", false},
      {R"({"qz": 01})", false},
      {R"({"qz": 1,})", false},
      {R"({"qz": 1} /**/)", false},
      {"{\"qz\": \"\xFF\"}", false},
      {"", false},
      {"[]", false},
      {std::string(100'000, '['), false},
  };
  for (const auto& [payload, fits] : sets) {
    const Contract::Verdict verdict = Contract::OfProject().Judge(setOf("1", payload));
    EXPECT_EQ("set", verdict.channel);
    EXPECT_TRUE(verdict.isRequest);
    EXPECT_EQ(fits ? "set" : "", verdict.message) << payload.substr(0, 100);
  }
}

}  // namespace
