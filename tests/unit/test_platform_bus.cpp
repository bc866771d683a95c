#include "platform_bus.h"

#include <atomic>
#include <cerrno>
#include <gio/gunixfdlist.h>
#include <thread>

#include "impatient.h"
#include "private_bus.h"

namespace
{

constexpr const char *LOST_LINE =
    "The platform's connection to the system bus was lost: Connection reset by peer.";

class PlatformBus : public BusTest
{
  protected:
    PlatformBus()
    {
        platform_bus_set_timeout(IMPATIENT_USEC);
    }

    sd_bus *hold()
    {
        g_autoptr(GError) error = nullptr;
        sd_bus *connection = nullptr;
        EXPECT_TRUE(platform_bus_hold(&connection, &error)) << error->message;
        return connection;
    }

    static std::string unique_name(sd_bus *connection)
    {
        const char *name = nullptr;
        sd_bus_get_unique_name(connection, &name);
        return name;
    }

    std::string ping(const std::string &name)
    {
        return bus_call(stranger, name, "/", "org.freedesktop.DBus.Peer", "Ping");
    }

    bool is_on_the_bus(const std::string &name)
    {
        return bus_call(stranger, "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                        "NameHasOwner", g_variant_new("(s)", name.c_str())) == "(true,)";
    }

    /* Sends pings from the stranger to `name`, and returns when they have reached its socket. */
    void send_pings(const std::string &name, int count)
    {
        for (int i = 0; i < count; i++) {
            g_dbus_connection_call(
                stranger, name.c_str(), "/", "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
                G_DBUS_CALL_FLAGS_NONE, 9000, nullptr,
                [](GObject *peer, GAsyncResult *result, gpointer data) {
                    g_autoptr(GVariant) reply =
                        g_dbus_connection_call_finish(G_DBUS_CONNECTION(peer), result, nullptr);
                    *static_cast<int *>(data) += reply != nullptr;
                },
                &pongs);
        }
        g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
            stranger, "org.freedesktop.DBus", "/", "org.freedesktop.DBus.Peer", "Ping", nullptr,
            nullptr, G_DBUS_CALL_FLAGS_NONE, 9000, nullptr, nullptr);
        ASSERT_NE(reply, nullptr);
    }

    /*
     * Sends numbered signals to a frozen bus until one is only half written and a few more are
     * queued. Returns their number.
     */
    static size_t send_more_than_fits(sd_bus *connection)
    {
        const std::string ballast(10000, 'x');
        int sent = 0;
        for (int waiting = 0; waiting < 5; sent++) {
            EXPECT_GE(sd_bus_emit_signal(connection, "/a", "a.b", "C", "is", sent, ballast.c_str()),
                      0);
            waiting += (sd_bus_get_events(connection) & G_IO_OUT) != 0;
        }
        return static_cast<size_t>(sent);
    }

    int pongs = 0;
};

TEST_F(PlatformBus, IsOneConnectionForAllHolders)
{
    sd_bus *first = hold();
    sd_bus *second = hold();
    EXPECT_EQ(first, second);
    platform_bus_release(first);
    platform_bus_release(second);
}

TEST_F(PlatformBus, StaysOpenForTheHolderThatIsLeft)
{
    sd_bus *first = hold();
    sd_bus *second = hold();
    platform_bus_release(first);
    EXPECT_EQ(ping(unique_name(second)), "()");
    platform_bus_release(second);
}

TEST_F(PlatformBus, ClosesWithTheLastHolder)
{
    sd_bus *connection = hold();
    const std::string name = unique_name(connection);
    EXPECT_TRUE(is_on_the_bus(name));
    platform_bus_release(connection);
    EXPECT_TRUE(run_until([&] { return !is_on_the_bus(name); }));
}

TEST_F(PlatformBus, OpensAgainAfterTheLastRelease)
{
    platform_bus_release(hold());
    sd_bus *connection = hold();
    EXPECT_EQ(ping(unique_name(connection)), "()");
    platform_bus_release(connection);
}

TEST_F(PlatformBus, ReleasesNothingForNull)
{
    sd_bus *connection = hold();
    platform_bus_release(nullptr);
    EXPECT_TRUE(platform_bus_is_open(connection));
    platform_bus_release(connection);
}

TEST_F(PlatformBus, IsNotOpenForNull)
{
    EXPECT_FALSE(platform_bus_is_open(nullptr));
}

TEST_F(PlatformBus, SendsWhatWasSentBeforeTheLastRelease)
{
    sd_bus *connection = hold();
    const SignalLog heard(stranger, unique_name(connection));
    bus.freeze();
    const size_t sent = send_more_than_fits(connection);
    bus.thaw();
    platform_bus_release(connection);
    EXPECT_TRUE(run_until([&] { return heard.lines.size() == sent; }));
}

TEST_F(PlatformBus, DoesNotWaitForABusThatDoesNotRead)
{
    sd_bus *connection = hold();
    const std::string name = unique_name(connection);
    bus.freeze();
    send_more_than_fits(connection);
    const gint64 start = g_get_monotonic_time();
    platform_bus_release(connection);
    EXPECT_LT(g_get_monotonic_time() - start, 5 * G_USEC_PER_SEC);
    bus.thaw();
    EXPECT_TRUE(run_until([&] { return !is_on_the_bus(name); }));
}

TEST_F(PlatformBus, ServesWhatASynchronousCallFoundBeforeItsAnswer)
{
    sd_bus *connection = hold();
    send_pings(unique_name(connection), 3);
    ASSERT_GE(sd_bus_call_method(connection, "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                                 "GetId", nullptr, nullptr, nullptr),
              0);
    EXPECT_TRUE(run_until([&] { return pongs == 3; }));
    platform_bus_release(connection);
}

TEST_F(PlatformBus, WritesLaterWhatTheBusDoesNotReadAtOnce)
{
    sd_bus *connection = hold();
    const SignalLog heard(stranger, unique_name(connection));
    bus.freeze();
    const size_t sent = send_more_than_fits(connection);
    bus.thaw();
    EXPECT_TRUE(run_until([&] { return heard.lines.size() == sent; }));
    for (size_t i = 0; i < heard.lines.size(); i++) {
        ASSERT_TRUE(heard.lines[i].starts_with("/a a.b.C (" + std::to_string(i) + ","))
            << heard.lines[i].substr(0, 30);
    }
    platform_bus_release(connection);
}

TEST_F(PlatformBus, LetsOtherSourcesRunWhileItIsFlooded)
{
    sd_bus *connection = hold();
    int served = 0;
    const auto count = [](sd_bus_message *, void *data, sd_bus_error *) {
        ++*static_cast<int *>(data);
        return 0;
    };
    sd_bus_slot *slot = nullptr;
    ASSERT_GE(sd_bus_add_filter(connection, &slot, count, &served), 0);
    send_pings(unique_name(connection), 120);
    while (served == 0) {
        g_main_context_iteration(nullptr, TRUE);
    }
    EXPECT_LT(served, 100);
    EXPECT_TRUE(run_until([&] { return pongs == 120; }));
    sd_bus_slot_unref(slot);
    platform_bus_release(connection);
}

TEST_F(PlatformBus, AcceptsNoFileDescriptors)
{
    sd_bus *connection = hold();
    g_autoptr(GUnixFDList) files = g_unix_fd_list_new();
    ASSERT_GE(g_unix_fd_list_append(files, 0, nullptr), 0);
    g_autoptr(GDBusMessage) message = g_dbus_message_new_method_call(
        unique_name(connection).c_str(), "/", "org.freedesktop.DBus.Peer", "Ping");
    g_dbus_message_set_body(message, g_variant_new("(h)", 0));
    g_dbus_message_set_unix_fd_list(message, files);
    g_autoptr(GDBusMessage) reply = g_dbus_connection_send_message_with_reply_sync(
        stranger, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, 9000, nullptr, nullptr, nullptr);
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(g_dbus_message_get_error_name(reply), "org.freedesktop.DBus.Error.NotSupported");
    platform_bus_release(connection);
}

TEST_F(PlatformBus, TellsOfACallThatTimesOut)
{
    sd_bus *connection = hold();
    bus.freeze();
    int answered = 0;
    const auto answer = [](sd_bus_message *m, void *data, sd_bus_error *) {
        *static_cast<int *>(data) = sd_bus_message_get_errno(m);
        return 0;
    };
    sd_bus_message *call = nullptr;
    ASSERT_GE(sd_bus_message_new_method_call(connection, &call, "org.freedesktop.DBus", "/",
                                             "org.freedesktop.DBus", "GetId"),
              0);
    ASSERT_GE(sd_bus_call_async(connection, nullptr, call, answer, &answered, 50000), 0);
    sd_bus_message_unref(call);
    /* Only the time-out itself must wake the loop; the guard ends the test if it does not. */
    bool gave_up = false;
    const guint guard = g_timeout_add_seconds(
        10,
        [](gpointer data) -> gboolean {
            *static_cast<bool *>(data) = true;
            return G_SOURCE_CONTINUE;
        },
        &gave_up);
    while (answered == 0 && !gave_up) {
        g_main_context_iteration(nullptr, TRUE);
    }
    g_source_remove(guard);
    bus.thaw();
    EXPECT_FALSE(gave_up);
    EXPECT_EQ(answered, ETIMEDOUT);
    platform_bus_release(connection);
}

TEST_F(PlatformBus, AnswersWhileOtherThreadsAddAndRemoveSources)
{
    sd_bus *connection = hold();
    std::atomic<bool> enough = false;
    std::thread churn([&enough] {
        while (!enough) {
            GSource *source = g_timeout_source_new(1000);
            g_source_attach(source, nullptr);
            g_source_destroy(source);
            g_source_unref(source);
        }
    });
    for (int i = 0; i < 200; i++) {
        ASSERT_EQ(ping(unique_name(connection)), "()");
    }
    enough = true;
    churn.join();
    platform_bus_release(connection);
}

TEST_F(PlatformBus, CanBeReleasedByWhatItCalls)
{
    sd_bus *connection = hold();
    const std::string name = unique_name(connection);
    const auto release = [](sd_bus_message *, void *data, sd_bus_error *) {
        platform_bus_release(g_steal_pointer(static_cast<sd_bus **>(data)));
        return 0;
    };
    ASSERT_GE(sd_bus_add_filter(connection, nullptr, release, &connection), 0);
    send_pings(name, 1);
    EXPECT_TRUE(run_until([&] { return connection == nullptr && !is_on_the_bus(name); }));
}

TEST_F(PlatformBus, LogsALossOnceAndLeavesItsHoldersAClosedConnection)
{
    sd_bus *first = hold();
    sd_bus *second = hold();
    bus.stop();
    EXPECT_TRUE(run_until([&] { return !platform_bus_is_open(first); }));
    EXPECT_TRUE(run_until([&] { return !g_main_context_pending(nullptr); }));
    EXPECT_EQ(sd_bus_emit_signal(first, "/a", "a.b", "C", nullptr), -ENOTCONN);
    platform_bus_release(first);
    platform_bus_release(second);
    expect_log(G_LOG_LEVEL_WARNING, LOST_LINE);
    expect_no_log();
}

TEST_F(PlatformBus, OpensANewConnectionAfterALoss)
{
    sd_bus *lost = hold();
    bus.stop();
    EXPECT_TRUE(run_until([&] { return !platform_bus_is_open(lost); }));
    expect_log(G_LOG_LEVEL_WARNING, LOST_LINE);
    bus.start();
    sd_bus *found = hold();
    EXPECT_TRUE(platform_bus_is_open(found));
    platform_bus_release(lost);
    EXPECT_TRUE(platform_bus_is_open(found)) << "the release of the old one touched the new one";
    platform_bus_release(found);
}

TEST_F(PlatformBus, CountsAHolderOnceHoweverOftenItAsks)
{
    sd_bus *connection = hold();
    const std::string name = unique_name(connection);
    sd_bus *same = connection;
    EXPECT_TRUE(platform_bus_hold(&same, nullptr));
    EXPECT_EQ(same, connection);
    platform_bus_release(connection);
    EXPECT_TRUE(run_until([&] { return !is_on_the_bus(name); }));
}

TEST_F(PlatformBus, ReplacesALostConnectionThatIsHeld)
{
    sd_bus *connection = hold();
    bus.stop();
    EXPECT_TRUE(run_until([&] { return !platform_bus_is_open(connection); }));
    expect_log(G_LOG_LEVEL_WARNING, LOST_LINE);
    EXPECT_FALSE(platform_bus_hold(&connection, nullptr));
    EXPECT_EQ(connection, nullptr);
    bus.start();
    EXPECT_TRUE(platform_bus_hold(&connection, nullptr));
    EXPECT_TRUE(platform_bus_is_open(connection));
    platform_bus_release(connection);
}

TEST_F(PlatformBus, OpensANewConnectionAfterALossThatACallFoundFirst)
{
    sd_bus *lost = hold();
    bus.stop();
    bus.start();
    EXPECT_LT(sd_bus_call_method(lost, "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetId",
                                 nullptr, nullptr, nullptr),
              0);
    sd_bus *found = hold();
    expect_log(G_LOG_LEVEL_WARNING, LOST_LINE);
    EXPECT_TRUE(platform_bus_is_open(found));
    platform_bus_release(lost);
    platform_bus_release(found);
}

TEST_F(PlatformBus, LogsALossThatACallFoundBeforeTheLastRelease)
{
    sd_bus *lost = hold();
    bus.stop();
    EXPECT_LT(sd_bus_call_method(lost, "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetId",
                                 nullptr, nullptr, nullptr),
              0);
    platform_bus_release(lost);
    expect_log(G_LOG_LEVEL_WARNING, LOST_LINE);
}

TEST_F(PlatformBus, SaysThatThereIsNoBus)
{
    bus.stop();
    g_autoptr(GError) error = nullptr;
    sd_bus *connection = nullptr;
    EXPECT_FALSE(platform_bus_hold(&connection, &error));
    EXPECT_EQ(connection, nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_STREQ(error->message, "The system bus cannot be reached: No such file or directory");
}

TEST_F(PlatformBus, GivesUpOnABusThatDoesNotAnswer)
{
    bus.freeze();
    g_autoptr(GError) error = nullptr;
    sd_bus *connection = nullptr;
    EXPECT_FALSE(platform_bus_hold(&connection, &error));
    EXPECT_EQ(connection, nullptr);
    bus.thaw();
    ASSERT_NE(error, nullptr);
    EXPECT_STREQ(error->message, "The system bus cannot be reached: Connection timed out");
}

TEST_F(PlatformBus, StartsTheLookupWithoutWaitingForTheBus)
{
    bus.freeze();
    sd_bus *connection = nullptr;
    platform_bus_start_lookup(&connection);
    bus.thaw();
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(sd_bus_is_ready(connection), 0);
    EXPECT_TRUE(run_until([&] { return sd_bus_is_ready(connection) > 0; }));
    platform_bus_release(connection);
}

TEST_F(PlatformBus, WaitsForALookupThatWasOnlyStarted)
{
    sd_bus *connection = nullptr;
    platform_bus_start_lookup(&connection);
    sd_bus *const started = connection;
    EXPECT_EQ(sd_bus_is_ready(started), 0);
    g_autoptr(GError) error = nullptr;
    EXPECT_TRUE(platform_bus_hold_lookup(&connection, &error)) << error->message;
    EXPECT_EQ(connection, started);
    EXPECT_EQ(sd_bus_is_ready(connection), 1);
    platform_bus_release(connection);
}

TEST_F(PlatformBus, GivesUpOnAStartedLookupThatTheBusDoesNotAnswer)
{
    bus.freeze();
    sd_bus *connection = nullptr;
    platform_bus_start_lookup(&connection);
    g_autoptr(GError) error = nullptr;
    EXPECT_FALSE(platform_bus_hold_lookup(&connection, &error));
    EXPECT_EQ(connection, nullptr);
    bus.thaw();
    ASSERT_NE(error, nullptr);
    EXPECT_STREQ(error->message, "The system bus cannot be reached: Connection timed out");
    g_clear_error(&error);
    EXPECT_TRUE(platform_bus_hold_lookup(&connection, &error)) << error->message;
    platform_bus_release(connection);
}

TEST_F(PlatformBus, StartsNoLookupWithoutABus)
{
    bus.stop();
    sd_bus *connection = nullptr;
    platform_bus_start_lookup(&connection);
    EXPECT_EQ(connection, nullptr);
}

} // namespace
