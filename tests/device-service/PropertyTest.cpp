// Properties and lists through the C interface.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "CapturedLog.h"
#include "Refused.h"
#include "api/Library.h"

namespace {

using Lumo::Bytes;
using Lumo::PropertyItem;
using ::testing::ElementsAre;

lumo_string text(const std::string& string) {
  return lumo_string_new(string.data(), string.size());
}

std::string copyOf(lumo_string string) {
  return {string.data, string.length};
}

void* newInt(const std::string& name, int value = 0) {
  return lumo_property_create_int(text(name), value);
}

std::vector<std::string> namesOf(void* list) {
  std::vector<std::string> names;
  for (void* property = lumo_property_list_get_first(list); property != nullptr;
       property = lumo_property_list_get_next(list, property)) {
    names.push_back(copyOf(lumo_property_get_name(property)));
  }
  return names;
}

// Every misuse must be answered and logged. A list is freed by giving it to no service.
class PropertyTest : public ::testing::Test {
 protected:
  PropertyTest() {
    lumo_service_notify(nullptr, nullptr);
    CapturedLog::Get().Take();
  }
  ~PropertyTest() override {
    for (void* list : m_lists) lumo_service_notify(nullptr, list);
  }

  void* newList() {
    m_lists.push_back(lumo_property_list_create());
    return m_lists.back();
  }
  // Hands the property to a list, so that it is freed.
  void* keep(void* property) {
    EXPECT_EQ(lumo_property_list_push_property(newList(), property, 0), 0);
    return property;
  }

 private:
  std::vector<void*> m_lists;
};

TEST_F(PropertyTest, CarriesNameTypeAndValue) {
  void* flag = keep(lumo_property_create_bool(text("flag"), true));
  void* number = keep(newInt("number", -7));
  void* real = keep(lumo_property_create_double(text("real"), 1.5));
  void* string = keep(lumo_property_create_string(text("string"), text("abc")));
  void* json = keep(lumo_property_create_json_string(text("json"), text("{}")));
  EXPECT_EQ(copyOf(lumo_property_get_name(flag)), "flag");
  EXPECT_EQ(lumo_property_get_type(flag), LUMO_PROPERTY_TYPE_BOOL);
  EXPECT_EQ(lumo_property_get_type(number), LUMO_PROPERTY_TYPE_INT);
  EXPECT_EQ(lumo_property_get_type(real), LUMO_PROPERTY_TYPE_DOUBLE);
  EXPECT_EQ(lumo_property_get_type(string), LUMO_PROPERTY_TYPE_STRING);
  EXPECT_EQ(lumo_property_get_type(json), LUMO_PROPERTY_TYPE_JSON_STRING);
  bool flagValue = false;
  int numberValue = 0;
  EXPECT_EQ(lumo_property_get_bool(flag, &flagValue), 0);
  EXPECT_EQ(lumo_property_get_int(number, &numberValue), 0);
  EXPECT_TRUE(flagValue);
  EXPECT_EQ(numberValue, -7);
  EXPECT_EQ(std::get<double>(PropertyItem::From(real)->Get().value), 1.5);
  EXPECT_EQ(copyOf(lumo_property_get_string(string)), "abc");
  EXPECT_EQ(copyOf(lumo_property_get_json_string(json)), "{}");
}

TEST_F(PropertyTest, BytesAreReadAsTheyAre) {
  const std::string data("A\0B", 3);
  PropertyItem item({"bytes", Bytes{data}});
  PropertyItem empty({"empty", Bytes{}});
  EXPECT_EQ(lumo_property_get_type(&item), LUMO_PROPERTY_TYPE_BYTES);
  const lumo_bytes bytes = lumo_property_get_bytes(&item);
  EXPECT_EQ(std::string(bytes.data, bytes.data + bytes.length), data);
  EXPECT_NE(lumo_property_get_bytes(&empty).data, nullptr);
  EXPECT_EQ(lumo_property_get_bytes(&empty).length, 0U);
}

TEST_F(PropertyTest, CopiesItsStringsWithTheirLengths) {
  std::string name("n\0m", 3);
  std::string value("v\0w", 3);
  void* property = keep(lumo_property_create_string(text(name), text(value)));
  name = value = "overwritten";
  EXPECT_EQ(copyOf(lumo_property_get_name(property)), std::string("n\0m", 3));
  EXPECT_EQ(copyOf(lumo_property_get_string(property)), std::string("v\0w", 3));
  EXPECT_EQ(lumo_property_get_string(property).data[3], '\0');
}

TEST_F(PropertyTest, AcceptsEmptyStrings) {
  void* property = keep(lumo_property_create_string(text(""), {nullptr, 0}));
  EXPECT_NE(lumo_property_get_name(property).data, nullptr);
  EXPECT_NE(lumo_property_get_string(property).data, nullptr);
  EXPECT_EQ(lumo_property_get_string(property).length, 0U);
}

TEST_F(PropertyTest, IsNotCreatedFromNullStrings) {
  EXPECT_TRUE(Refused(lumo_property_create_bool({nullptr, 0}, true)));
  EXPECT_TRUE(Refused(lumo_property_create_int({nullptr, 0}, 1)));
  EXPECT_TRUE(Refused(lumo_property_create_double({nullptr, 0}, 1)));
  EXPECT_TRUE(Refused(lumo_property_create_string({nullptr, 0}, text("x"))));
  EXPECT_TRUE(Refused(lumo_property_create_json_string(text("x"), {nullptr, 1})));
}

TEST_F(PropertyTest, RefusesToBeReadAsAnotherType) {
  void* number = keep(newInt("number"));
  bool flag = true;
  EXPECT_TRUE(Refused(lumo_property_get_bool(number, &flag)));
  EXPECT_TRUE(flag);
  EXPECT_TRUE(Refused(lumo_property_get_string(number).data));
  EXPECT_TRUE(Refused(lumo_property_get_json_string(number).data));
  EXPECT_TRUE(Refused(lumo_property_get_bytes(number).data));

  void* json = keep(lumo_property_create_json_string(text("json"), text("{}")));
  int value = 3;
  EXPECT_TRUE(Refused(lumo_property_get_string(json).data));
  EXPECT_TRUE(Refused(lumo_property_get_int(json, &value)));
  EXPECT_EQ(value, 3);
  EXPECT_TRUE(Refused(lumo_property_get_int(number, nullptr)));
}

TEST_F(PropertyTest, RefusesHandlesOfOtherThings) {
  alignas(PropertyItem) std::array<unsigned char, sizeof(PropertyItem)> noProperty{};
  for (void* wrong : {static_cast<void*>(nullptr), newList(), static_cast<void*>(&noProperty)}) {
    bool flag = true;
    EXPECT_TRUE(Refused(lumo_property_get_name(wrong).data));
    EXPECT_EQ(lumo_property_get_type(wrong), -1);
    EXPECT_TRUE(LoggedAnError());
    EXPECT_TRUE(Refused(lumo_property_get_bool(wrong, &flag)));
    EXPECT_TRUE(Refused(lumo_property_get_string(wrong).data));
    EXPECT_TRUE(Refused(lumo_property_list_push_property(newList(), wrong, 0)));
  }
}

TEST_F(PropertyTest, ListRefusesHandlesOfOtherThings) {
  void* property = keep(newInt("a"));
  void* loose = newInt("b");
  for (void* wrong : {static_cast<void*>(nullptr), property}) {
    EXPECT_TRUE(Refused(lumo_property_list_get_first(wrong)));
    EXPECT_TRUE(Refused(lumo_property_list_get_next(wrong, property)));
    EXPECT_TRUE(Refused(lumo_property_list_push_property(wrong, loose, 0)));
    EXPECT_TRUE(Refused(lumo_service_notify(nullptr, wrong)));
  }
  keep(loose);  // it has stayed the caller's
}

TEST_F(PropertyTest, ListKeepsTheOrderOfPushesAndPositionsThatCountFromOne) {
  void* list = newList();
  EXPECT_EQ(lumo_property_list_get_first(list), nullptr);
  for (const auto& [name, position] :
       {std::pair("c", 0), std::pair("a", 9), std::pair("a", 0), std::pair("first", 1),
        std::pair("second", 2), std::pair("before the last", 5), std::pair("last", 7)}) {
    EXPECT_EQ(lumo_property_list_push_property(list, newInt(name), position), 0);
  }
  EXPECT_THAT(namesOf(list),
              ElementsAre("first", "second", "c", "a", "before the last", "a", "last"));
  EXPECT_THAT(CapturedLog::Get().Take(), ::testing::IsEmpty());
  void* property = newInt("refused");
  EXPECT_TRUE(Refused(lumo_property_list_push_property(list, property, -1)));
  keep(property);
}

TEST_F(PropertyTest, ListRefusesAPropertyThatIsInAListAndTheNextOfOneElsewhere) {
  void* list = newList();
  void* property = newInt("a");
  EXPECT_EQ(lumo_property_list_push_property(list, property, 0), 0);
  EXPECT_TRUE(Refused(lumo_property_list_push_property(list, property, 0)));
  EXPECT_TRUE(Refused(lumo_property_list_push_property(newList(), property, 0)));
  EXPECT_TRUE(Refused(lumo_property_list_get_next(list, keep(newInt("elsewhere")))));
  EXPECT_THAT(namesOf(list), ElementsAre("a"));
}

TEST_F(PropertyTest, ListThatWasGivenAwayIsRefused) {
  void* list = lumo_property_list_create();
  EXPECT_NE(lumo_service_notify(nullptr, list), 0);
  CapturedLog::Get().Take();

  void* property = newInt("a");
  EXPECT_TRUE(Refused(lumo_property_list_push_property(list, property, 0)));
  EXPECT_TRUE(Refused(lumo_property_list_get_first(list)));
  EXPECT_TRUE(Refused(lumo_service_notify(nullptr, list)));
  keep(property);
}

TEST_F(PropertyTest, ListHandlesDoNotComeAgain) {
  std::set<void*> handles;
  for (int i = 0; i < 1000; ++i) {
    void* list = lumo_property_list_create();
    lumo_service_notify(nullptr, list);
    EXPECT_TRUE(handles.insert(list).second);
  }
}

TEST_F(PropertyTest, TenThousandPropertiesAreWalkedInOrder) {
  constexpr int kCount = 10'000;
  void* list = newList();
  for (int i = 0; i < kCount; ++i) {
    ASSERT_EQ(lumo_property_list_push_property(list, newInt("n", i), 0), 0);
  }
  int expected = 0;
  for (void* property = lumo_property_list_get_first(list); property != nullptr;
       property = lumo_property_list_get_next(list, property)) {
    int value = -1;
    ASSERT_EQ(lumo_property_get_int(property, &value), 0);
    ASSERT_EQ(value, expected++);
  }
  EXPECT_EQ(expected, kCount);
}

}  // namespace
