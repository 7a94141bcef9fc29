// What the shipped bus policy lets whom do.
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "HostTest.h"

namespace {

constexpr uid_t kOtherUser = 65534;  // nobody
#ifdef SYS_setresuid32
constexpr long kSetUser = SYS_setresuid32;  // here the other one takes users of 16 bits
#else
constexpr long kSetUser = SYS_setresuid;
#endif
constexpr guint kReplaceExisting = 2;
constexpr guint kDoNotQueue = 4;
const std::string kDenied = "org.freedesktop.DBus.Error.AccessDenied";

class PolicyTest : public HostTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be another user";
    other = ClientOf(kOtherUser);
  }

  // The bus checks who connects, and that is a thread: the system call, unlike the function of
  // the C library, changes the user of the calling thread alone.
  std::unique_ptr<BusClient> ClientOf(uid_t user) {
    std::unique_ptr<BusClient> client;
    std::thread([this, &client, user] {
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
  static void EmitAllSignals(BusClient& client) {
    client.Emit("send_event", g_variant_new("(ss)", "qz", "1"));
    client.Emit("cloud_connection_changed", g_variant_new("(b)", TRUE));
    client.Emit("dbus_server_ready", nullptr);
  }

  std::unique_ptr<BusClient> other;
};

TEST_F(PolicyTest, AnotherUserMayCallTheFiveMethods) {
  const std::string kBus = "org.freedesktop.DBus";
  const std::string name = other->UniqueName();
  ASSERT_EQ("(65534,)", CallOther(*other, kBus, "GetConnectionUnixUser",
                                  g_variant_new("(s)", name.c_str()), kBus)
                            .value);
  channel.StartLocally();
  EXPECT_EQ("(0,)", Register(*other, "qz"));
  EXPECT_EQ("(0,)", SendData(*other, "qz", "1"));
  EXPECT_EQ("(0,)", Unregister(*other, "qz"));
  EXPECT_EQ("(false,)", CloudConnection(*other));
  EXPECT_EQ("('',)", ThingInformation(*other));
  // And introspect and ping.
  EXPECT_NE(std::string::npos,
            CallOther(*other, "org.freedesktop.DBus.Introspectable", "Introspect")
                .value.find("register_app"));
  EXPECT_EQ("()", CallOther(*other, "org.freedesktop.DBus.Peer", "Ping").value);
}

TEST_F(PolicyTest, NobodyMayCallAnythingElse) {
  channel.StartLocally();
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
  channel.StartLocally();
  // The ready line comes just after the signal was sent, which the bus may still have to deliver.
  ASSERT_TRUE(WaitUntil([this] { return !other->Signals().empty(); }));
  ASSERT_EQ(1U, other->Signals().size());
  EXPECT_EQ("dbus_server_ready", other->Signals()[0].member);

  // The service's user stands in for the service, which would want a cloud for the first two.
  const auto own = NewClient();
  EmitAllSignals(*own);
  other->OwnerOf(kBusName);  // answered after what the bus had for it before
  Lines members;
  for (const Signal& signal : other->Signals()) {
    if (signal.sender == own->UniqueName()) members.push_back(signal.member);
  }
  EXPECT_EQ((Lines{"send_event", "cloud_connection_changed", "dbus_server_ready"}), members);
}

TEST_F(PolicyTest, AnotherUserCannotSendTheSignals) {
  const auto own = NewClient();
  EmitAllSignals(*other);
  own->OwnerOf(kBusName);
  EXPECT_TRUE(own->Signals().empty());
}

TEST_F(PolicyTest, AnotherUserCannotOwnTheName) {
  EXPECT_EQ(0U, other->RequestName(kBusName, kDoNotQueue));
  EXPECT_EQ("", other->OwnerOf(kBusName));

  channel.StartLocally();
  const std::string owner = other->OwnerOf(kBusName);
  EXPECT_EQ(0U, other->RequestName(kBusName, kReplaceExisting));
  EXPECT_EQ(owner, other->OwnerOf(kBusName));
  EXPECT_EQ(Lines{owner}, other->QueuedOwnersOf(kBusName));
}

TEST_F(PolicyTest, TheServicesUserMayOwnTheNameAndNoOther) {
  const auto own = NewClient();
  EXPECT_EQ(1U, own->RequestName(kBusName, kDoNotQueue));  // its owner
  EXPECT_EQ(0U, own->RequestName("org.example.other", kDoNotQueue));
}

}  // namespace
