#include <map>
#include <string>
#include <utility>
#include <vector>

#include "AppDataChannelInfo.h"
#include "JsonValueAdaptor.h"
#include "PlatformTest.h"

using AppDataChannel::ThingInfo;
using ThingCommon::JsonValueAdaptor;

namespace {

using TypeList = std::map<std::string, JsonValueAdaptor::_Type>;

const TypeList kDeclared = {{"signinStatus", JsonValueAdaptor::TYPE_BOOL},
                            {"signupInfo", JsonValueAdaptor::TYPE_OBJECT}};

JsonValueAdaptor Parse(const std::string& text) {
  return JsonValueAdaptor::Create(text);
}

}  // namespace

// The table logs and calls nothing, whatever a test does.
class ThingInfoTest : public PlatformTest {
 protected:
  void TearDown() override {
    EXPECT_EQ(std::vector<std::string>(), platform.Summaries());
    PlatformTest::TearDown();
  }

  ThingInfo table;
};

TEST_F(ThingInfoTest, DeclaresSigninStatusAndSignupInfoInThisOrder) {
  const TypeList list = table.GetThingPropertyTypeList();
  const std::vector<std::pair<std::string, int>> entries(list.begin(), list.end());
  const std::vector<std::pair<std::string, int>> expected = {{"signinStatus", 1},
                                                             {"signupInfo", 6}};
  EXPECT_EQ(expected, entries);
  for (const auto& [name, type] : kDeclared) {
    EXPECT_TRUE(table.IsThingProperty(name));
    EXPECT_EQ(type, table.getPropertyType(name));
    EXPECT_TRUE(table.GetThingProperty(name).isNull()) << "not set yet";
  }
}

TEST_F(ThingInfoTest, ComparesNamesByteByByteAndIgnoresAnUnknownOne) {
  for (const std::string& name : std::vector<std::string>{
           "signInStatus", "signinstatus", "SigninStatus", "signinStatus ", "signupinfo",
           "signUpInfo", "signup", "qz", "", std::string("signupInfo\0", 11)}) {
    SCOPED_TRACE(name);
    table.SetThingProperty(name, Parse("true"));
    EXPECT_FALSE(table.IsThingProperty(name));
    EXPECT_FALSE(table.isValidPropertyName(name));
    EXPECT_EQ(JsonValueAdaptor::TYPE_NULL, table.getPropertyType(name));
    EXPECT_TRUE(table.GetThingProperty(name).isNull());
  }
  EXPECT_TRUE(table.m_properties.empty());
  EXPECT_EQ(kDeclared, table.GetThingPropertyTypeList());
}

TEST_F(ThingInfoTest, KeepsOnlyTheLaterOfTwoValues) {
  table.SetThingProperty("signupInfo", Parse(R"({"id": "one", "old": true})"));
  table.SetThingProperty("signupInfo", Parse(R"({"id": "two"})"));
  EXPECT_EQ(Parse(R"({"id": "two"})"), table.GetThingProperty("signupInfo"));
  EXPECT_TRUE(table.GetThingProperty("signinStatus").isNull());
}

TEST_F(ThingInfoTest, KeepsAValueOfTheWrongTypeAsItIs) {
  for (const std::string text : {"\"true\"", "7", "-7", "4294967295", "1.5", "[1, {}]", "{}",
                                 R"({"a": [null]})", "true", "null"}) {
    const JsonValueAdaptor value = Parse(text);
    for (const auto& [name, type] : kDeclared) {
      table.SetThingProperty(name, value);
      EXPECT_EQ(value, table.GetThingProperty(name)) << text;
      EXPECT_EQ(value.type(), table.GetThingProperty(name).type()) << text;
    }
  }
  EXPECT_EQ(kDeclared, table.GetThingPropertyTypeList());
}

TEST_F(ThingInfoTest, HoldsAndGivesCopies) {
  JsonValueAdaptor value = Parse(R"({"id": 1})");
  table.SetThingProperty("signupInfo", value);
  value["id"] = 2;
  JsonValueAdaptor given = table.GetThingProperty("signupInfo");
  given["id"] = 3;
  EXPECT_EQ(Parse(R"({"id": 1})"), table.GetThingProperty("signupInfo"));

  TypeList list = table.GetThingPropertyTypeList();
  table.m_propertyTypes["signupInfo"] = JsonValueAdaptor::TYPE_STRING;
  table.m_propertyTypes["third"] = JsonValueAdaptor::TYPE_INT;
  EXPECT_EQ(kDeclared, list);
  EXPECT_EQ(3U, table.GetThingPropertyTypeList().size());
  list.clear();
  EXPECT_TRUE(table.IsThingProperty("signupInfo"));
}

TEST_F(ThingInfoTest, DeclaringAgainOverwritesAndKeepsTheValuesAndDeinitEmptiesBoth) {
  table.SetThingProperty("signinStatus", Parse("true"));
  table.m_propertyTypes["signinStatus"] = JsonValueAdaptor::TYPE_STRING;
  table.init();
  EXPECT_EQ(kDeclared, table.GetThingPropertyTypeList());
  EXPECT_EQ(Parse("true"), table.GetThingProperty("signinStatus"));
  table.deinit();
  EXPECT_TRUE(table.m_propertyTypes.empty());
  EXPECT_TRUE(table.m_properties.empty());
  EXPECT_FALSE(table.IsThingProperty("signupInfo"));
}

TEST_F(ThingInfoTest, PublicOperationsWaitForTheLock) {
  EXPECT_TRUE(
      AllWaitFor(table.m_mutex, {[this] { table.IsThingProperty("signinStatus"); },
                                 [this] { table.GetThingProperty("signinStatus"); },
                                 [this] { table.GetThingProperty("unknown"); },
                                 [this] { table.SetThingProperty("unknown", Parse("{}")); },
                                 [this] { table.SetThingProperty("signupInfo", Parse("{}")); },
                                 [this] { table.GetThingPropertyTypeList(); }}));
}
