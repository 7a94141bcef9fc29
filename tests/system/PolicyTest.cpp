// What the shipped bus policy lets whom do.
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "HostTest.h"
#include "WaitUntil.h"

namespace {

constexpr uid_t kOtherUser = 65534;  // nobody
#ifdef SYS_setresuid32
constexpr long kSetUser = SYS_setresuid32;  // here the other one takes users of 16 bits
#else
constexpr long kSetUser = SYS_setresuid;
#endif
constexpr guint kPrimaryOwner = 1;
constexpr guint kReplaceExisting = 2;
constexpr guint kDoNotQueue = 4;
const std::string kDenied = "org.freedesktop.DBus.Error.AccessDenied";

class PolicyTest : public HostTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be another user";
    other = ClientOf(kOtherUser);
  }

  // The bus looks at who connects, and that is a thread: the system call, unlike the function of
  // the C library, changes the user of the calling thread alone.
  static std::unique_ptr<BusClient> ClientOf(uid_t user) {
    std::unique_ptr<BusClient> client;
    std::thread([&client, user] {
      if (syscall(kSetUser, user, user, user) == 0) client = NewClient();
    }).join();
    return client;
  }

  static Reply CallOther(BusClient& client, const std::string& interface, const std::string& method,
                         GVariant* parameters = nullptr,
                         const std::string& destination = kBusName) {
    return client
        .Call(method, parameters, BusClient::kCallLimit, destination, kObjectPath, interface)
        .get();
  }

  std::unique_ptr<BusClient> other;
};

TEST_F(PolicyTest, AnotherUserIsAnotherUser) {
  EXPECT_EQ("(65534,)",
            other
                ->Call("GetConnectionUnixUser", g_variant_new("(s)", other->UniqueName().c_str()),
                       BusClient::kCallLimit, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                       "org.freedesktop.DBus")
                .get()
                .value);
}

TEST_F(PolicyTest, AnotherUserMayCallTheFiveMethods) {
  const auto host = StartReadyHost();
  EXPECT_EQ("(0,)", Call(*other, "register_app", "qz").value);
  EXPECT_EQ("(0,)", other->Call("send_data", g_variant_new("(ss)", "qz", "1")).get().value);
  EXPECT_EQ("(0,)", Call(*other, "unregister_app", "qz").value);
  EXPECT_EQ("(false,)", other->Call("get_cloud_connection").get().value);
  EXPECT_EQ("('',)", other->Call("get_thing_information").get().value);
}

TEST_F(PolicyTest, AnotherUserMayIntrospectAndPing) {
  const auto host = StartReadyHost();
  EXPECT_NE(std::string::npos,
            CallOther(*other, "org.freedesktop.DBus.Introspectable", "Introspect")
                .value.find("register_app"));
  EXPECT_EQ("()", CallOther(*other, "org.freedesktop.DBus.Peer", "Ping").value);
}

TEST_F(PolicyTest, NobodyMayCallAnythingElse) {
  const auto host = StartReadyHost();
  const auto own = NewClient();
  const std::string owner = own->OwnerOf(kBusName);
  ASSERT_NE("", owner);
  for (BusClient* client : {other.get(), own.get()}) {
    for (const std::string& destination : {std::string(kBusName), owner}) {
      const auto errorOf = [&](const std::string& interface, const std::string& method,
                               GVariant* parameters = nullptr) {
        return CallOther(*client, interface, method, parameters, destination).error;
      };
      EXPECT_EQ(kDenied, errorOf("org.freedesktop.DBus.Properties", "GetAll",
                                 g_variant_new("(s)", kInterface)));
      EXPECT_EQ(kDenied, errorOf("org.freedesktop.DBus.Properties", "Get",
                                 g_variant_new("(ss)", kInterface, "any")));
      EXPECT_EQ(kDenied, errorOf("org.freedesktop.DBus.Peer", "GetMachineId"));
      EXPECT_EQ(kDenied, errorOf(kInterface, "no_such_method"));
      EXPECT_EQ(kDenied, errorOf(kInterface, "Introspect"));
      EXPECT_EQ(kDenied, errorOf("org.example.Other", "register_app", g_variant_new("(s)", "qz")));
    }
  }
}

TEST_F(PolicyTest, AnotherUserReceivesTheSignals) {
  const auto host = StartReadyHost();
  const auto own = NewClient();
  // The service's user stands in for the service, which would want a cloud for the first two.
  own->Emit("send_event", g_variant_new("(ss)", "qz", "1"));
  own->Emit("cloud_connection_changed", g_variant_new("(b)", TRUE));
  own->Emit("dbus_server_ready", nullptr);
  other->OwnerOf(kBusName);  // answered after what the bus had for it before
  std::vector<std::string> members;
  for (const Signal& signal : other->Signals()) {
    if (signal.sender == own->UniqueName()) members.push_back(signal.member);
  }
  EXPECT_EQ(
      (std::vector<std::string>{"send_event", "cloud_connection_changed", "dbus_server_ready"}),
      members);
}

TEST_F(PolicyTest, AnotherUserReceivesWhatTheServiceItselfEmits) {
  const auto host = StartReadyHost();
  // The ready line comes just after the signal was sent, which the bus may still have to deliver.
  ASSERT_TRUE(WaitUntil([this] { return !other->Signals().empty(); }));
  ASSERT_EQ(1U, other->Signals().size());
  EXPECT_EQ("dbus_server_ready", other->Signals()[0].member);
}

TEST_F(PolicyTest, AnotherUserCannotSendTheSignals) {
  const auto own = NewClient();
  other->Emit("send_event", g_variant_new("(ss)", "qz", "1"));
  other->Emit("cloud_connection_changed", g_variant_new("(b)", TRUE));
  other->Emit("dbus_server_ready", nullptr);
  own->OwnerOf(kBusName);
  EXPECT_TRUE(own->Signals().empty());
}

TEST_F(PolicyTest, AnotherUserCannotOwnTheName) {
  EXPECT_EQ(0U, other->RequestName(kBusName, kDoNotQueue));
  EXPECT_EQ("", other->OwnerOf(kBusName));

  const auto host = StartReadyHost();
  const std::string owner = other->OwnerOf(kBusName);
  EXPECT_EQ(0U, other->RequestName(kBusName, kReplaceExisting));
  EXPECT_EQ(owner, other->OwnerOf(kBusName));
  EXPECT_EQ(std::vector<std::string>{owner}, other->QueuedOwnersOf(kBusName));
}

TEST_F(PolicyTest, TheServicesUserMayOwnTheNameAndNoOther) {
  const auto own = NewClient();
  EXPECT_EQ(kPrimaryOwner, own->RequestName(kBusName, kDoNotQueue));
  EXPECT_EQ(0U, own->RequestName("org.example.other", kDoNotQueue));
}

}  // namespace
