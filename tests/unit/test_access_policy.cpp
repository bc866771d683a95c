#include "platform/access_policy.h"

#include <grp.h>
#include <unistd.h>
#include <vector>

#include "access_policy_file.h"
#include "impatient.h"
#include "platform_bus.h"
#include "private_bus.h"
#include "temp_dir.h"

namespace
{

constexpr const char *ACTION = "com.vesk.Sonobrik.PlayClip";
constexpr uid_t NOBODY = 65534;
constexpr const char *LOST_LINE =
    "The access policy's connection to the system bus was lost: Connection reset by peer.";

class AccessPolicy : public BusTest
{
  protected:
    AccessPolicy()
    {
        access_policy_file_set_path("access.conf");
        platform_bus_set_timeout(IMPATIENT_USEC);
    }

    /* The service keeps its connection, so the loop must notice its loss before the next test. */
    ~AccessPolicy() override
    {
        bus.stop();
        run_until([] { return !g_main_context_pending(nullptr); });
    }

    static void init(const std::string &text)
    {
        write_file("access.conf", text);
        ASSERT_TRUE(access_policy_init(nullptr));
    }

    static std::string check(const char *sender, const char *action = ACTION)
    {
        g_autoptr(GError) error = nullptr;
        const bool admitted = access_policy_check(sender, action, &error);
        EXPECT_EQ(admitted, error == nullptr);
        return error ? error->message : "admitted";
    }

    static std::string check(GDBusConnection *peer)
    {
        return check(g_dbus_connection_get_unique_name(peer));
    }

    static uint64_t count_queued(sd_bus *connection)
    {
        uint64_t count = 0;
        EXPECT_GE(sd_bus_get_n_queued_read(connection, &count), 0);
        return count;
    }

    /* Connects as another user; needs root. The bus refuses users that have no account. */
    GDBusConnection *connect_as(uid_t uid, gid_t gid, const std::vector<gid_t> &more)
    {
        EXPECT_EQ(setgroups(more.size(), more.data()), 0);
        EXPECT_EQ(setegid(gid), 0);
        EXPECT_EQ(seteuid(uid), 0);
        GDBusConnection *peer = bus.connect();
        EXPECT_EQ(seteuid(0), 0);
        EXPECT_EQ(setegid(0), 0);
        EXPECT_EQ(setgroups(0, nullptr), 0);
        return peer;
    }

    WorkingTempDir folder;
};

std::string policy_for_me()
{
    return "[com.vesk.Sonobrik]\nusers=" + std::to_string(geteuid()) + "\n";
}

TEST_F(AccessPolicy, InitialisesWithoutABus)
{
    bus.stop();
    init(policy_for_me());
}

TEST_F(AccessPolicy, DoesNotInitialiseWithABrokenFile)
{
    write_file("access.conf", "?");
    g_autoptr(GError) error = nullptr;
    EXPECT_FALSE(access_policy_init(&error));
    ASSERT_NE(error, nullptr);
    EXPECT_TRUE(g_str_has_prefix(error->message, "access.conf: ")) << error->message;
}

TEST_F(AccessPolicy, AdmitsByTheUserWhomTheBusKnows)
{
    init(policy_for_me());
    EXPECT_EQ(check(stranger), "admitted");
}

TEST_F(AccessPolicy, AdmitsByAGroupWhichTheBusKnows)
{
    init("[com.vesk.Sonobrik]\ngroups=" + std::to_string(getegid()) + "\n");
    EXPECT_EQ(check(stranger), "admitted");
}

TEST_F(AccessPolicy, RefusesWhoIsNotListed)
{
    init("[com.vesk.Sonobrik]\nusers=4242\n");
    EXPECT_EQ(check(stranger),
              "uid " + std::to_string(geteuid()) +
                  " is not allowed to call com.vesk.Sonobrik.PlayClip: "
                  "[com.vesk.Sonobrik] in access.conf lists neither this user nor any of its "
                  "groups");
}

TEST_F(AccessPolicy, TellsUsersApart)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can connect as a second user";
    }
    init("[com.vesk.Sonobrik]\nusers=0\n");
    g_autoptr(GDBusConnection) other = connect_as(NOBODY, 65534, {});
    EXPECT_EQ(check(stranger), "admitted");
    EXPECT_EQ(check(other),
              "uid 65534 is not allowed to call com.vesk.Sonobrik.PlayClip: "
              "[com.vesk.Sonobrik] in access.conf lists neither this user nor any of its groups");
}

TEST_F(AccessPolicy, KnowsSupplementaryGroups)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can connect with other groups";
    }
    init("[com.vesk.Sonobrik]\ngroups=4343\n");
    g_autoptr(GDBusConnection) member = connect_as(NOBODY, 65534, {29, 4343});
    EXPECT_EQ(check(member), "admitted");
}

TEST_F(AccessPolicy, RefusesANullSender)
{
    init("[com.vesk.Sonobrik]\nusers=*\n");
    EXPECT_EQ(check(nullptr, ACTION), "the call has no sender");
}

TEST_F(AccessPolicy, RefusesANullAction)
{
    init("[com.vesk.Sonobrik]\nusers=*\n");
    EXPECT_EQ(check(":1.0", nullptr), "the call has no method name");
}

TEST_F(AccessPolicy, RefusesASenderThatIsNoUniqueName)
{
    init("[com.vesk.Sonobrik]\nusers=*\n");
    EXPECT_EQ(check("org.freedesktop.DBus"), "'org.freedesktop.DBus' is not a unique bus name");
}

TEST_F(AccessPolicy, RefusesASenderThatHasLeft)
{
    init("[com.vesk.Sonobrik]\nusers=*\n");
    EXPECT_EQ(check(":1.4242"), "the caller ':1.4242' has left the bus");
}

TEST_F(AccessPolicy, RefusesASenderThatTheBusCannotRead)
{
    init("[com.vesk.Sonobrik]\nusers=*\n");
    EXPECT_EQ(check(":\xff"), "the bus did not identify the caller ':\xff': Invalid argument");
    EXPECT_EQ(check(stranger), "admitted") << "the connection is broken";
}

TEST_F(AccessPolicy, AsksTheBusOnceAboutACaller)
{
    init(policy_for_me());
    EXPECT_EQ(check(stranger), "admitted");
    bus.freeze();
    EXPECT_EQ(check(stranger), "admitted");
    bus.thaw();
}

TEST_F(AccessPolicy, AsksAboutACallerThatHasReconnected)
{
    init(policy_for_me());
    GDBusConnection *before = bus.connect();
    EXPECT_EQ(check(before), "admitted");
    g_object_unref(before);
    g_autoptr(GDBusConnection) after = bus.connect();
    bus.freeze();
    EXPECT_NE(check(after), "admitted");
    bus.thaw();
    EXPECT_EQ(check(after), "admitted");
}

TEST_F(AccessPolicy, RefusesWhileTheBusDoesNotAnswerAndAsksAgainLater)
{
    init(policy_for_me());
    g_autoptr(GDBusConnection) other = bus.connect();
    EXPECT_EQ(check(stranger), "admitted");
    bus.freeze();
    const std::string name = g_dbus_connection_get_unique_name(other);
    EXPECT_EQ(check(other),
              "the bus did not identify the caller '" + name + "': Method call timed out");
    bus.thaw();
    EXPECT_EQ(check(other), "admitted");
}

TEST_F(AccessPolicy, RemembersABoundedNumberOfCallers)
{
    init(policy_for_me());
    std::vector<GDBusConnection *> peers;
    for (int i = 0; i < 129; i++) {
        peers.push_back(bus.connect());
        ASSERT_EQ(check(peers.back()), "admitted");
    }
    bus.freeze();
    for (size_t i = 1; i < peers.size(); i++) {
        ASSERT_EQ(check(peers[i]), "admitted") << i;
    }
    EXPECT_NE(check(peers.front()), "admitted");
    bus.thaw();
    for (GDBusConnection *peer : peers) {
        g_object_unref(peer);
    }
}

TEST_F(AccessPolicy, DoesNotReadWhatIsSentToTheEvents)
{
    init(policy_for_me());
    sd_bus *events = nullptr;
    ASSERT_TRUE(platform_bus_hold(&events, nullptr));
    int received = 0;
    const auto count = [](sd_bus_message *, void *data, sd_bus_error *) {
        ++*static_cast<int *>(data);
        return 0;
    };
    sd_bus_slot *slot = nullptr;
    ASSERT_GE(sd_bus_add_filter(events, &slot, count, &received), 0);
    bus.freeze();
    const char *name = nullptr;
    ASSERT_GE(sd_bus_get_unique_name(events, &name), 0);
    for (int i = 0; i < 100; i++) {
        ASSERT_TRUE(
            g_dbus_connection_emit_signal(stranger, name, "/a", "a.b", "C", nullptr, nullptr));
    }
    bus.thaw();
    EXPECT_EQ(check(stranger), "admitted");
    EXPECT_EQ(received, 0);
    EXPECT_EQ(count_queued(events), 0U);
    sd_bus_slot_unref(slot);
    platform_bus_release(events);
}

TEST_F(AccessPolicy, DropsWhatArrivesBeforeTheReply)
{
    init(policy_for_me());
    sd_bus *lookup = nullptr;
    ASSERT_TRUE(platform_bus_hold_lookup(&lookup, nullptr));
    bus.freeze();
    const char *name = nullptr;
    ASSERT_GE(sd_bus_get_unique_name(lookup, &name), 0);
    for (int i = 0; i < 100; i++) {
        ASSERT_TRUE(
            g_dbus_connection_emit_signal(stranger, name, "/a", "a.b", "C", nullptr, nullptr));
    }
    ASSERT_TRUE(g_dbus_connection_flush_sync(stranger, nullptr, nullptr));
    bus.thaw();
    EXPECT_EQ(check(stranger), "admitted");
    EXPECT_EQ(count_queued(lookup), 0U);
    platform_bus_release(lookup);
}

TEST_F(AccessPolicy, RefusesWithoutABusAndRecoversWithIt)
{
    init(policy_for_me());
    EXPECT_EQ(check(stranger), "admitted");
    bus.stop();
    EXPECT_NE(check(":1.4242"), "admitted"); /* this call notices the loss before the loop does */
    EXPECT_EQ(check(":1.0"), "The system bus cannot be reached: No such file or directory");
    expect_log(G_LOG_LEVEL_WARNING, LOST_LINE);
    bus.start();
    g_autoptr(GDBusConnection) other = bus.connect();
    EXPECT_EQ(check(other), "admitted");
}

TEST_F(AccessPolicy, DoesNotTakeACallerForOneOfAnEarlierBus)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can connect as a second user";
    }
    init("[com.vesk.Sonobrik]\nusers=0\n");
    const std::string name = g_dbus_connection_get_unique_name(stranger);
    EXPECT_EQ(check(stranger), "admitted");
    bus.stop();
    EXPECT_NE(check(":1.4242"), "admitted"); /* this call notices the loss before the loop does */
    bus.start();
    g_autoptr(GDBusConnection) other = connect_as(NOBODY, 65534, {});
    ASSERT_EQ(name, g_dbus_connection_get_unique_name(other))
        << "the new bus must give the same name again";
    EXPECT_NE(check(other), "admitted");
    expect_log(G_LOG_LEVEL_WARNING, LOST_LINE);
}

} // namespace
