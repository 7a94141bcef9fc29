// The health of a service: what it counts, when it is written, and where.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Gate.h"
#include "ScriptedBrokerTest.h"
#include "TemporaryFolder.h"
#include "Watched.h"
#include "api/lumo_health.h"
#include "dlog_dropped.h"

// In place of the log's.
unsigned long dlog_dropped_lines(void) {
  return 7;
}

namespace {

using broker::Number;
using broker::Property;
using std::chrono::milliseconds;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr const char* kHealth = "things/tv/health";
constexpr const char* kOffline = "\"offline\"";
constexpr lumo_error kUnknownName = 6;
constexpr std::uint8_t kNotAuthorised = 0x87;

std::string maximumPacketSize(std::size_t bytes) {
  return Property(broker::kMaximumPacketSize, Number(bytes, 4));
}

class MqttHealthTest : public ScriptedBrokerTest {
 protected:
  static constexpr milliseconds kInterval{100};

  // The number of this member in the last health that the broker took; nothing when it is not
  // there.
  std::optional<std::size_t> figure(const std::string& name) const {
    const std::string health = m_broker.RetainedAt(kHealth);
    const std::size_t place = health.find("\"" + name + "\":");
    if (place == std::string::npos) return std::nullopt;
    return std::stoul(health.substr(place + name.size() + 3));
  }
  void serveUntilFigure(const std::string& name, std::size_t number, int line = __builtin_LINE()) {
    try {
      serveUntil([&] { return figure(name) == number; }, line);
    } catch (const std::runtime_error& e) {
      throw std::runtime_error(std::string(e.what()) + "; health: " + m_broker.RetainedAt(kHealth));
    }
  }
  std::size_t countWritten() const { return m_broker.PublicationsOn(kHealth).size(); }
  void announce(const std::string& properties) {
    m_broker.AnswerConnects(
        [this, properties](const auto&) { return m_broker.Greeting(properties); });
  }
  // Of which the figures have been written, and nothing is to follow.
  void startWritten() {
    startOnline();
    serveUntilFigure("connections", 1);
    m_broker.ServeFor(5 * kInterval);
  }

  const Variable m_interval{"LUMO_HEALTH_INTERVAL_MS", std::to_string(kInterval.count())};
};

// --- What is written

TEST_F(MqttHealthTest, TheFiguresStandRetainedAtTheBrokerOnceTheServiceIsConnected) {
  startOnlineWithValue();
  serveUntilFigure("connections", 1);
  const Publication health = m_broker.PublicationsOn(kHealth).back();
  EXPECT_THAT(
      health.payload,
      MatchesRegex(R"(\{"version":"[0-9.]+","started":"20[^"]*Z","connections":1,"served":0,)"
                   R"("busy":0,"timedOut":0,"cancelled":0,"invalid":0,"setsRefused":0,)"
                   R"("valuesTooLarge":0,"logLinesDropped":7,"properties":1,)"
                   R"("waitingRequests":0,"waitingAnswers":0,"residentBytes":[0-9]{6,}\})"));
  EXPECT_TRUE(health.retain);
  EXPECT_EQ(health.qos, 1);
  EXPECT_EQ(health.properties.contentType, "application/json");
  std::vector<std::string> labels;
  for (const auto& label : health.properties.user) labels.push_back(label.first);
  EXPECT_THAT(labels, ::testing::UnorderedElementsAre("run", "version", "time"));
}

TEST_F(MqttHealthTest, ARequestThatWasAnsweredIsServedAndOneWithAnotherResultIsARefusedSet) {
  startOnline();
  expectSetWorks();
  m_plugIn->AnswerNothing();
  m_plugIn->OnRequest([](const PlugIn::Call& call) { PlugIn::Answer(call, kUnknownName); });
  deliverRequest(kSet, R"({"x":1})", "set");
  deliverRequest(kGet, R"(["x"])", "get");
  serveUntilFigure("served", 3);
  serveUntilFigure("setsRefused", 1);
  EXPECT_EQ(figure("invalid"), 0U);
}

TEST_F(MqttHealthTest, ARequestThatNoPlugInCanGetIsInvalid) {
  startOnline();
  deliverRequest(kSet, "no JSON", "1");
  deliverRequest(kGet, "{}", "2");
  serveUntilFigure("invalid", 2);
  EXPECT_EQ(figure("served"), 0U);
}

TEST_F(MqttHealthTest, ARequestThatWaitsIsShownUntilItIsAnswered) {
  startWritten();
  m_plugIn->AnswerNothing();
  deliverSet();
  serveUntilFigure("waitingRequests", 1);
  ASSERT_TRUE(m_plugIn->WaitForCalls("set", 1));
  PlugIn::Answer(m_plugIn->Calls("set").front(), 0);
  serveUntilFigure("waitingRequests", 0);
  serveUntilFigure("served", 1);
}

TEST_F(MqttHealthTest, ARequestThatTimedOutWaitsUntilThePlugInIsDoneWithIt) {
  const Variable timeout("LUMO_REQUEST_TIMEOUT_MS", "100");
  startOnline();
  m_plugIn->AnswerNothing();
  deliverSet();
  serveUntilFigure("timedOut", 1);
  EXPECT_EQ(figure("waitingRequests"), 1U);
  PlugIn::Answer(m_plugIn->Calls("set").front(), 0);
  serveUntilFigure("waitingRequests", 0);
  EXPECT_EQ(figure("served"), 0U);
}

TEST_F(MqttHealthTest, ARequestThatItsRequesterEndsIsCancelled) {
  startOnline();
  m_plugIn->AnswerNothing();
  deliverSet();
  serveUntilFigure("waitingRequests", 1);
  deliverRequest(kCancel, "", "1");
  serveUntilFigure("cancelled", 1);
}

TEST_F(MqttHealthTest, ARequestBeyondThoseThatMayWaitIsBusy) {
  constexpr std::size_t kMostWaiting = 256;
  startOnline();
  m_plugIn->AnswerNothing();
  for (std::size_t i = 0; i < kMostWaiting + 3; ++i) deliverSet();
  serveUntilFigure("busy", 3);
  serveUntilFigure("waitingRequests", kMostWaiting);
}

TEST_F(MqttHealthTest, AnswersThatTheBrokerDoesNotTakeAreShown) {
  constexpr std::size_t kMostInFlight = 16;
  startWritten();
  m_broker.JudgePublications([](const Publication& publication) -> std::optional<std::uint8_t> {
    if (publication.topic == kAnswers) return std::nullopt;
    return 0;
  });
  for (std::size_t i = 0; i < kMostInFlight; ++i) deliverSet();
  serveUntil([&] { return m_broker.Unacknowledged().size() == kMostInFlight; });
  for (int i = 0; i < 4; ++i) deliverSet();
  serveUntil([&] { return m_plugIn->Calls("set").size() == kMostInFlight + 4; });
  // One makes room for an answer, and another one for the health.
  m_broker.AcknowledgeOldest();
  serveUntil([&] { return m_broker.Unacknowledged().size() == kMostInFlight; });
  lumo_health health{};
  ASSERT_TRUE(lumo_health_read(&health, sizeof health));
  EXPECT_EQ(health.waiting_answers, 3U);
}

TEST_F(MqttHealthTest, AValueThatIsTooLargeCountsOnceHoweverOftenItIsTried) {
  announce(maximumPacketSize(1000));
  startOnlineWithValue();
  m_plugIn->Notify("a", std::string(2000, 'x'));
  serveUntilFigure("valuesTooLarge", 1);
  m_broker.Close();
  serveUntilOnlineAgain();
  serveUntilFigure("connections", 2);
  EXPECT_EQ(figure("valuesTooLarge"), 1U);
  m_plugIn->Notify("a", std::string(2000, 'y'));
  serveUntilFigure("valuesTooLarge", 2);
}

TEST_F(MqttHealthTest, ALostConnectionIsThereWithItsReasonAndTime) {
  startWritten();
  EXPECT_THAT(m_broker.RetainedAt(kHealth), Not(HasSubstr("lost")));
  m_broker.Send(broker::Disconnect(0x8B));  // the broker shuts down
  m_broker.Close();
  serveUntilOnlineAgain();
  serveUntilFigure("connections", 2);
  EXPECT_THAT(m_broker.RetainedAt(kHealth),
              ContainsRegex(R"("lastLoss":"[^"]*shutting down[^"]*","lostAt":"20[^"]*Z")"));
}

TEST_F(MqttHealthTest, TheLastLossAsksForTheThingsIdWhenTheBrokerClosesThreeConnectionsInARow) {
  startWritten();
  for (std::size_t i = 1; i <= 3; ++i) {
    EXPECT_THAT(m_broker.RetainedAt(kHealth), Not(HasSubstr("LUMO_THING_ID")));
    m_broker.Close();
    serveUntilOnlineAgain(i);
    serveUntilFigure("connections", i + 1);
  }
  EXPECT_THAT(m_broker.RetainedAt(kHealth),
              ContainsRegex(R"("lastLoss":"[^"]* again: is LUMO_THING_ID unique\?")"));
}

// --- When it is written

TEST_F(MqttHealthTest, NothingIsWrittenWhileNothingHappensAndAValueIsNothing) {
  startOnlineWithValue();
  serveUntilFigure("connections", 1);
  m_broker.ServeFor(5 * kInterval);  // for a late one
  const std::size_t before = countWritten();
  for (int i = 0; i < 10; ++i) {
    m_plugIn->Notify("a", std::to_string(i));
    m_broker.ServeFor(kInterval);
  }
  serveUntilValue("9");
  EXPECT_EQ(countWritten(), before);
}

// The interval is longer than the second after a change.
TEST_F(MqttHealthTest, ItIsWrittenOnceInTheIntervalHoweverMuchChanges) {
  constexpr milliseconds kLonger(2500);
  const Variable interval("LUMO_HEALTH_INTERVAL_MS", std::to_string(kLonger.count()));
  const auto start = Clock::now();
  startOnline();
  std::size_t sets = 0;
  for (; Clock::now() < start + 2 * kLonger; ++sets) expectSetWorks();
  const auto intervals = static_cast<std::size_t>((Clock::now() - start) / kLonger);
  EXPECT_LE(countWritten(), intervals + 1);
  EXPECT_GE(countWritten(), 2U);
  serveUntilFigure("served", sets);
}

TEST_F(MqttHealthTest, TheLastFiguresComeBeforeOfflineHoweverLongTheIntervalIs) {
  const Variable interval("LUMO_HEALTH_INTERVAL_MS", "60000");
  startOnline();
  expectSetWorks();
  end();
  EXPECT_EQ(countWritten(), 1U);
  EXPECT_EQ(figure("served"), 1U);
  EXPECT_EQ(m_broker.RetainedAt(kStatus), kOffline);
  const auto& all = m_broker.Publications();
  ASSERT_GE(all.size(), 2U);
  EXPECT_EQ(all[all.size() - 2].topic, kHealth);
  EXPECT_EQ(all.back().topic, kStatus);
}

TEST_F(MqttHealthTest, AShutdownWithoutNewsWritesNothingMore) {
  startWritten();
  const std::size_t before = countWritten();
  end();
  EXPECT_EQ(countWritten(), before);
}

TEST_F(MqttHealthTest, WhatIsAsBeforeIsNoNews) {
  constexpr milliseconds kLonger(500);
  const Variable interval("LUMO_HEALTH_INTERVAL_MS", std::to_string(kLonger.count()));
  startWritten();
  const std::size_t before = countWritten();
  m_plugIn->Register("a");
  m_plugIn->Unregister("a");
  m_broker.ServeFor(3 * kLonger);
  EXPECT_EQ(countWritten(), before);
}

// --- A broker that does not want it

TEST_F(MqttHealthTest, ARefusalIsLoggedOnceAndDisturbsNothing) {
  m_broker.JudgePublications([](const Publication& publication) -> std::optional<std::uint8_t> {
    return publication.topic == kHealth ? kNotAuthorised : 0;
  });
  const auto start = Clock::now();
  startOnlineWithValue();
  while (countWritten() < 3) expectSetWorks();
  serveUntilValue("1");
  expectSetWorksOn(1);
  EXPECT_EQ(countErrors({kHealth, "authorised"}), 1U) << log();
  EXPECT_LE(countWritten(), static_cast<std::size_t>((Clock::now() - start) / kInterval) + 1);
}

TEST_F(MqttHealthTest, WithoutRetainedMessagesItIsPublishedAllTheSame) {
  announce(Property(broker::kRetainAvailable, Number(0, 1)));
  m_plugIn.emplace();
  serveUntil([&] { return countWritten() != 0; });
  EXPECT_FALSE(m_broker.PublicationsOn(kHealth).back().retain);
  expectSetWorksOn(1);
}

TEST_F(MqttHealthTest, ABrokerThatTakesNoQosGetsItAtZero) {
  announce(Property(broker::kMaximumQos, Number(0, 1)));
  startOnline();
  serveUntil([&] { return countWritten() != 0; });
  EXPECT_EQ(m_broker.PublicationsOn(kHealth).back().qos, 0);
}

TEST_F(MqttHealthTest, WhereItIsTooLargeNothingStandsThereAndOneLineSaysSo) {
  constexpr std::size_t kLimit = 300;
  announce(maximumPacketSize(kLimit));
  startOnline();
  while (countWritten() < 3) expectSetWorks();
  for (const Publication& publication : m_broker.PublicationsOn(kHealth)) {
    EXPECT_THAT(publication.payload, IsEmpty());
    EXPECT_LE(publication.bytes, kLimit);
  }
  EXPECT_EQ(countErrors({kHealth, "more than the broker takes"}), 1U) << log();
}

TEST_F(MqttHealthTest, NoAnswerGoesToItsTopic) {
  startOnline();
  m_broker.Deliver(kSet, R"({"n":1})", broker::AnswerProperties(kHealth, "1"));
  serveUntilFigure("served", 1);
  EXPECT_THAT(m_broker.AnswersTo("1"), IsEmpty());
  EXPECT_EQ(countErrors({"no answer goes to the Response Topic", kHealth}), 1U) << log();
}

// --- The file

class HealthFileTest : public MqttHealthTest {
 protected:
  std::string text() const { return m_folder.Read("tv.prom"); }
  // Waits until the file has this line.
  void serveUntilLine(const std::string& line, int from = __builtin_LINE()) {
    serveUntil([&] { return ("\n" + text()).find("\n" + line + "\n") != std::string::npos; }, from);
  }

  const TemporaryFolder m_folder;
  const Variable m_file{"LUMO_HEALTH_FILE", m_folder.Path() / "tv.prom"};
};

TEST_F(HealthFileTest, ItHasTheFiguresAndEverybodyMayReadIt) {
  const mode_t before = umask(0077);
  startOnline();
  serveUntilLine("appdatachannel_online 1");
  serveUntilLine("appdatachannel_connections_total 1");
  expectSetWorks();
  serveUntilLine("appdatachannel_requests_served_total 1");
  serveUntilLine("appdatachannel_log_lines_dropped_total 7");
  umask(before);
  struct stat file {};
  ASSERT_EQ(stat((m_folder.Path() / "tv.prom").c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777U, 0644U);
  end();
  EXPECT_THAT(text(), HasSubstr("\nappdatachannel_online 0\n"));
  EXPECT_EQ(m_folder.Read("tv.prom.new"), "");
}

TEST_F(HealthFileTest, AfterAShutdownNoRequestWaitsAnyMore) {
  const Variable timeout("LUMO_REQUEST_TIMEOUT_MS", "100");
  startOnline();
  m_plugIn->AnswerNothing();
  for (int i = 0; i < 3; ++i) deliverSet();
  serveUntilFigure("timedOut", 3);
  serveUntilFigure("waitingRequests", 3);
  end();
  EXPECT_EQ(m_broker.RetainedAt(kStatus), kOffline);
  EXPECT_EQ(figure("waitingRequests"), 0U);
  EXPECT_EQ(figure("timedOut"), 3U);
  EXPECT_THAT(text(), HasSubstr("\nappdatachannel_waiting_requests 0\n"));
}

TEST_F(HealthFileTest, IsThereWithoutABrokerToo) {
  const Variable broker("LUMO_BROKER", "");
  m_plugIn.emplace();
  m_plugIn->Register("a");
  serveUntilLine("appdatachannel_online 0");
  serveUntilLine("appdatachannel_properties 1");
}

TEST_F(HealthFileTest, OfSeveralServicesTheNewestWritesAlone) {
  const Variable broker("LUMO_BROKER", "");
  m_plugIn.emplace();
  m_plugIn->Register("a");
  serveUntilLine("appdatachannel_properties 1");
  PlugIn newest("newest");
  newest.Register("a");
  newest.Register("b");
  serveUntilLine("appdatachannel_properties 2");
  const std::string before = text();
  for (const char* name : {"b", "c"}) {
    m_plugIn->Register(name);
    m_broker.ServeFor(3 * kInterval);
    EXPECT_EQ(text(), before);
  }
  m_plugIn->Destroy();
  EXPECT_EQ(text(), before);
  newest.Register("c");
  serveUntilLine("appdatachannel_properties 3");
  newest.Destroy();
  EXPECT_THAT(text(), HasSubstr("\nappdatachannel_properties 3\n"));
}

TEST_F(HealthFileTest, PromtoolFindsNothingWrong) {
  startOnline();
  m_broker.Close();
  serveUntilOnlineAgain();
  serveUntilLine("appdatachannel_connections_total 2");
  ASSERT_THAT(text(), HasSubstr("\nappdatachannel_last_loss_timestamp_seconds "));
  if (system("command -v promtool >/dev/null") != 0) GTEST_SKIP() << "there is no promtool";
  const std::string output = m_folder.Path() / "output";
  const std::string command =
      "promtool check metrics <" + (m_folder.Path() / "tv.prom").string() + " >" + output + " 2>&1";
  EXPECT_EQ(system(command.c_str()), 0);
  EXPECT_EQ(m_folder.Read("output"), "");
}

TEST_F(HealthFileTest, AFileThatCannotBeWrittenIsOneLineAndTheServiceGoesOn) {
  const Variable file("LUMO_HEALTH_FILE", m_folder.Path() / "nowhere" / "tv.prom");
  startOnline();
  while (countWritten() < 4) expectSetWorks();
  EXPECT_EQ(countErrors({"LUMO_HEALTH_FILE: cannot write '", "nowhere/tv.prom': No such file"}), 1U)
      << log();
  EXPECT_EQ(countErrors({}), 1U) << log();
}

TEST_F(HealthFileTest, ALinkInThePlaceOfTheNewFileIsNotFollowed) {
  m_folder.Write("precious", "precious");
  std::filesystem::create_symlink(m_folder.Path() / "precious", m_folder.Path() / "tv.prom.new");
  startOnline();
  serveUntilLine("appdatachannel_online 1");
  EXPECT_EQ(m_folder.Read("precious"), "precious");
  EXPECT_EQ(countErrors({}), 0U) << log();
}

TEST_F(HealthFileTest, APipeInThePlaceOfTheNewFileHoldsNothingUp) {
  ASSERT_EQ(mkfifo((m_folder.Path() / "tv.prom.new").c_str(), 0600), 0);
  startOnline();
  serveUntilLine("appdatachannel_online 1");
  end();
  EXPECT_EQ(m_broker.RetainedAt(kStatus), kOffline);
  EXPECT_THAT(text(), HasSubstr("\nappdatachannel_online 0\n"));
}

// As with a disk that does not answer.
TEST_F(HealthFileTest, AWatchThreadThatIsHeldUpHoldsUpNeitherOfflineNorTheShutdown) {
  Gate begun;
  Gate released;
  std::pair<Gate&, Gate&> gates(begun, released);
  lumo_health_listen(
      [](void* user_data) {
        const auto& [in, out] = *static_cast<std::pair<Gate&, Gate&>*>(user_data);
        in.Open();
        out.Wait();
      },
      &gates);
  startOnline();
  ASSERT_TRUE(begun.Wait());
  const auto start = Clock::now();
  end();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(4));
  EXPECT_EQ(m_broker.RetainedAt(kStatus), kOffline);
  EXPECT_EQ(countLines({"LUMO_HEALTH_FILE", "does not have the last figures yet"}), 1U) << log();
  EXPECT_EQ(text(), "");
  released.Open();
  lumo_health_listen(nullptr, nullptr);
  serveUntilLine("appdatachannel_online 0");
}

// --- What a host can ask

class HealthReadTest : public MqttHealthTest {
 protected:
  ~HealthReadTest() override { lumo_health_listen(nullptr, nullptr); }
  static lumo_health read() {
    lumo_health health{};
    EXPECT_TRUE(lumo_health_read(&health, sizeof health));
    return health;
  }
};

TEST_F(HealthReadTest, ThereIsSomethingToReadWhileThereIsAService) {
  lumo_health health{};
  EXPECT_FALSE(lumo_health_read(&health, sizeof health));
  startOnline();
  EXPECT_EQ(read().link, LUMO_LINK_ONLINE);
  EXPECT_FALSE(lumo_health_read(nullptr, 0));
  end();
  EXPECT_FALSE(lumo_health_read(&health, sizeof health));
}

TEST_F(HealthReadTest, NoMoreIsFilledInThanTheCallerKnows) {
  startOnline();
  lumo_health health{};
  health.properties = 99;
  EXPECT_TRUE(lumo_health_read(&health, offsetof(lumo_health, properties)));
  EXPECT_EQ(health.link, LUMO_LINK_ONLINE);
  EXPECT_EQ(health.properties, 99U);
}

TEST_F(HealthReadTest, ALinkThatIsOnlineSaysWhatTheBrokerRefusesUntilItTakesIt) {
  bool isRefused = true;
  m_broker.JudgePublications([&](const Publication& publication) -> std::optional<std::uint8_t> {
    return isRefused && publication.topic == valueTopic("a") ? kNotAuthorised : 0;
  });
  startOnlineWithValue();
  serveUntil([&] { return *read().reason != '\0'; });
  EXPECT_EQ(read().link, LUMO_LINK_ONLINE);
  EXPECT_THAT(read().reason, MatchesRegex("the broker refuses things/tv/.*/a: not authorised"));
  isRefused = false;
  m_plugIn->Notify("a", "2");
  serveUntil([&] { return *read().reason == '\0'; });
  EXPECT_EQ(read().link, LUMO_LINK_ONLINE);
}

TEST_F(HealthReadTest, ARefusalThatIsShownIsOneThatLasts) {
  bool isRefused = true;
  m_broker.JudgePublications([&](const Publication& publication) -> std::optional<std::uint8_t> {
    const bool isA = publication.topic == valueTopic("a");
    const bool isB = publication.topic == valueTopic("b");
    return isB || (isA && isRefused) ? kNotAuthorised : 0;
  });
  startOnlineWithValue();
  serveUntil([&] { return std::string(read().reason).find("/a: ") != std::string::npos; });
  m_plugIn->Register("b");
  m_plugIn->Notify("b", "1");
  serveUntil([&] { return countErrors({valueTopic("b") + ": not authorised"}) == 1; });
  isRefused = false;
  m_plugIn->Notify("a", "2");
  serveUntilValue("2");
  serveUntil([&] { return std::string(read().reason).find("/b: ") != std::string::npos; });
  EXPECT_EQ(read().link, LUMO_LINK_ONLINE);
}

TEST_F(HealthReadTest, AReasonHasItsCauseAlsoWithALongId) {
  const std::string id = "0f8fad5b-d9cb-469f-a165-70867728950e";
  const Variable thing("LUMO_THING_ID", id);
  const std::string refused = "things/" + id + "/service/properties";
  m_broker.JudgePublications([&](const Publication& publication) -> std::optional<std::uint8_t> {
    return publication.topic == refused ? kNotAuthorised : 0;
  });
  m_plugIn.emplace();
  m_plugIn->Register("a");
  serveUntil([&] { return *read().reason != '\0' && read().link == LUMO_LINK_ONLINE; });
  EXPECT_EQ(read().reason, "the broker refuses " + refused + ": not authorised");
  m_broker.Send(broker::Disconnect(0x8E));  // session taken over
  m_broker.Close();
  serveUntil([&] {
    return m_broker.RetainedAt("things/" + id + "/health").find("lastLoss") != std::string::npos;
  });
  EXPECT_THAT(m_broker.RetainedAt("things/" + id + "/health"),
              ContainsRegex("another client has connected as " + id +
                            "[^\"]*: is LUMO_THING_ID unique\\?\""));
}

TEST_F(HealthReadTest, AReasonThatIsTooLongEndsAfterACharacter) {
  std::string name = "y";
  for (int i = 0; i < 120; ++i) name += "\xC3\xA9";
  m_broker.JudgePublications([&](const Publication& publication) -> std::optional<std::uint8_t> {
    return publication.topic == valueTopic(name) ? kNotAuthorised : 0;
  });
  startOnline();
  m_plugIn->Register(name);
  m_plugIn->Notify(name, "1");
  serveUntil([&] { return *read().reason != '\0'; });
  const std::string reason = read().reason;
  EXPECT_THAT(reason, StartsWith("the broker refuses " + valueTopic("y\xC3\xA9")));
  EXPECT_THAT(reason, MatchesRegex(".*\xC3\xA9\xE2\x80\xA6"));
  EXPECT_GT(reason.size(), 180U);
  EXPECT_LT(reason.size(), 200U);
}

TEST_F(HealthReadTest, WhatTheLastConnectionRefusedTheNextOneMayTake) {
  m_broker.JudgePublications([&](const Publication& publication) -> std::optional<std::uint8_t> {
    const bool isFirst = m_broker.Connections().size() == 1;
    return isFirst && publication.topic == valueTopic("a") ? kNotAuthorised : 0;
  });
  startOnlineWithValue();
  serveUntil([&] { return *read().reason != '\0'; });
  m_broker.Close();
  serveUntilOnlineAgain();
  EXPECT_STREQ(read().reason, "");
}

TEST_F(HealthReadTest, ALinkThatIsOfflineSaysSinceWhenAndWhy) {
  const auto before = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  m_broker.AnswerConnects([](const auto&) { return broker::ConnAckWith(false, 0x87); });
  m_plugIn.emplace();
  serveUntil([&] { return *read().reason != '\0'; });
  EXPECT_EQ(read().link, LUMO_LINK_OFFLINE);
  EXPECT_THAT(read().reason, HasSubstr("not authorised"));
  EXPECT_GE(read().since, before);
  m_broker.AnswerAsUsual();
  serveUntilOnline();
  EXPECT_STREQ(read().reason, "");
}

TEST_F(HealthReadTest, WithoutABrokerThereIsNoLink) {
  const Variable broker("LUMO_BROKER", "");
  m_plugIn.emplace();
  m_plugIn->Register("a");
  m_plugIn->Register("b");
  EXPECT_EQ(read().link, LUMO_LINK_NONE);
  EXPECT_EQ(read().properties, 2U);
}

TEST_F(HealthReadTest, TheListenerHearsOfAChangeAndOfNothingElse) {
  Watched<int> calls;
  lumo_health_listen(
      [](void* user_data) {
        static_cast<Watched<int>*>(user_data)->Change([](int& count) { ++count; });
      },
      &calls);
  startWritten();
  m_broker.ServeFor(5 * kInterval);
  const int before = calls.Get();
  EXPECT_GE(before, 1);
  m_broker.ServeFor(5 * kInterval);
  EXPECT_EQ(calls.Get(), before);
  m_plugIn->Register("a");
  serveUntil([&] { return calls.Get() > before; });
  lumo_health_listen(nullptr, nullptr);
  const int last = calls.Get();
  m_plugIn->Register("b");
  serveUntilFigure("properties", 2);
  EXPECT_EQ(calls.Get(), last);
}

}  // namespace
