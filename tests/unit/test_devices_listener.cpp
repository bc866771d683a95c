#include "devices_listener.h"

#include <cerrno>

#include "bus_server.h"
#include "failing_calls.h"
#include "private_bus.h"

namespace
{

constexpr const char *SENDER = "com.vesk.AudioControl";
constexpr const char *OBJECT = "/com/vesk/AudioControl";
constexpr const char *INTERFACE = "org.freedesktop.DBus.ObjectManager";

/* The number of calls of the callback, and the last user data. */
int heard;
void *heard_user_data;

int hear(sd_bus_message *, void *user_data, sd_bus_error *)
{
    heard++;
    heard_user_data = user_data;
    return 0;
}

class DevicesListenerTest : public BusTest
{
  protected:
    DevicesListenerTest()
    {
        heard = 0;
        heard_user_data = this;
        EXPECT_EQ(bus_call(stranger, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "RequestName", g_variant_new("(su)", SENDER, 0)),
                  "(uint32 1,)");
    }

    int listen()
    {
        return sonobrik_dbus_devices_listener(&conn, hear);
    }

    /* Sends a signal, as a broadcast if `destination` is null, and waits until it is delivered. */
    void announce(GDBusConnection *sender, const char *destination, const char *object,
                  const char *interface, const char *member)
    {
        g_dbus_connection_emit_signal(sender, destination, object, interface, member,
                                      g_variant_new("(oas)", "/com/vesk/AudioControl/0", nullptr),
                                      nullptr);
        settle(sender, server.name);
    }

    BusServer server;
    sonobrik_dbus conn = {.bus = server.bus,
                          .slot = nullptr,
                          .source = nullptr,
                          .service_name = nullptr,
                          .on_lost = nullptr,
                          .watch = nullptr};
    FailingCalls library;
};

} // namespace

TEST_F(DevicesListenerTest, AddedDevicesAreReported)
{
    EXPECT_GE(listen(), 0);
    announce(stranger, nullptr, OBJECT, INTERFACE, "InterfacesAdded");
    EXPECT_EQ(heard, 1);
    EXPECT_EQ(heard_user_data, nullptr);
    expect_no_log();
}

TEST_F(DevicesListenerTest, RemovedDevicesAreReported)
{
    EXPECT_GE(listen(), 0);
    announce(stranger, nullptr, OBJECT, INTERFACE, "InterfacesRemoved");
    EXPECT_EQ(heard, 1);
    EXPECT_EQ(heard_user_data, nullptr);
}

TEST_F(DevicesListenerTest, EverySignalIsReported)
{
    listen();
    announce(stranger, nullptr, OBJECT, INTERFACE, "InterfacesAdded");
    announce(stranger, nullptr, OBJECT, INTERFACE, "InterfacesRemoved");
    announce(stranger, nullptr, OBJECT, INTERFACE, "InterfacesAdded");
    EXPECT_EQ(heard, 3);
}

TEST_F(DevicesListenerTest, OtherSendersAreIgnored)
{
    listen();
    GDBusConnection *other = bus.connect();
    announce(other, nullptr, OBJECT, INTERFACE, "InterfacesAdded");
    announce(other, nullptr, OBJECT, INTERFACE, "InterfacesRemoved");
    EXPECT_EQ(heard, 0);
    g_object_unref(other);
}

TEST_F(DevicesListenerTest, OtherObjectsInterfacesAndMembersAreIgnored)
{
    listen();
    announce(stranger, nullptr, "/com/vesk/AudioControl/0", INTERFACE, "InterfacesAdded");
    announce(stranger, nullptr, "/", INTERFACE, "InterfacesRemoved");
    announce(stranger, nullptr, OBJECT, "com.vesk.AudioControl", "InterfacesAdded");
    announce(stranger, nullptr, OBJECT, INTERFACE, "InterfacesChanged");
    EXPECT_EQ(heard, 0);
}

/* The bus does not check a unicast signal against the match, so the callback has to. */
TEST_F(DevicesListenerTest, UnicastSignalOfAnySenderIsPassedOn)
{
    listen();
    GDBusConnection *other = bus.connect();
    announce(other, server.name.c_str(), OBJECT, INTERFACE, "InterfacesAdded");
    EXPECT_EQ(heard, 1);
    g_object_unref(other);
}

TEST_F(DevicesListenerTest, NothingIsReportedBeforeItListens)
{
    announce(stranger, nullptr, OBJECT, INTERFACE, "InterfacesAdded");
    EXPECT_EQ(heard, 0);
}

TEST_F(DevicesListenerTest, ListensForTheTwoSignalsInOrderAndKeepsNoSlot)
{
    listen();
    EXPECT_EQ(library.made, (std::vector<std::string>{"sd_bus_match_signal InterfacesAdded",
                                                      "sd_bus_match_signal InterfacesRemoved"}));
    EXPECT_EQ(conn.slot, nullptr);
}

TEST_F(DevicesListenerTest, FailureOfTheFirstMatchIsReturnedAtOnce)
{
    library.fail("sd_bus_match_signal InterfacesAdded", -ENOMEM);
    EXPECT_EQ(listen(), -ENOMEM);
    EXPECT_EQ(library.made, std::vector<std::string>{"sd_bus_match_signal InterfacesAdded"});
    expect_no_log();
}

TEST_F(DevicesListenerTest, FailureOfTheSecondMatchIsReturned)
{
    library.fail("sd_bus_match_signal InterfacesRemoved", -ENOBUFS);
    EXPECT_EQ(listen(), -ENOBUFS);
    expect_no_log();
}

TEST_F(DevicesListenerTest, NullConnectionFails)
{
    sonobrik_dbus closed = {};
    EXPECT_EQ(sonobrik_dbus_devices_listener(nullptr, hear), -EINVAL);
    EXPECT_EQ(sonobrik_dbus_devices_listener(&closed, hear), -EINVAL);
}
