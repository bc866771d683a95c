#include "sonobrik_dbus.h"

#include <cerrno>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>

#include "bus_guard.h"
#include "bus_server.h"
#include "failing_calls.h"
#include "fake_service_frame.h"
#include "private_bus.h"
#include "sonobrik_dbus_source.h"

namespace
{

constexpr const char *SERVICE = "com.vesk.Test";
constexpr const char *OBJECT = "/com/vesk/Test";
constexpr const char *INTERFACE = "com.vesk.Test";

using Steps = std::vector<std::string>;

int ignore(sd_bus_message *, void *, sd_bus_error *)
{
    return 0;
}

int count(sd_bus_message *, void *user_data, sd_bus_error *)
{
    ++*static_cast<int *>(user_data);
    return 0;
}

int answer_yes(sd_bus_message *call, void *, sd_bus_error *)
{
    return sd_bus_reply_method_return(call, "s", "yes");
}

constexpr sd_bus_vtable table[] = {
    SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Ask", "", "s", answer_yes, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

/* Returns true if a client of the bus owns the name. */
bool has_owner(GDBusConnection *peer, const char *name)
{
    return bus_call(peer, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                    "NameHasOwner", g_variant_new("(s)", name)) == "(true,)";
}

/* Waits: the bus notices a closed connection a little later. */
bool loses_owner(GDBusConnection *peer, const char *name)
{
    return run_until([&] { return !has_owner(peer, name); });
}

/* Returns the negative errno value that sd-bus maps an error name to. */
int errno_of(const char *error_name)
{
    sd_bus_error error = {};
    const int r = sd_bus_error_set(&error, error_name, "text");
    sd_bus_error_free(&error);
    return r;
}

class ConnectionTest : public BusTest
{
  protected:
    ConnectionTest()
    {
        quits.clear();
    }

    ~ConnectionTest() override
    {
        bus_watch_set_interval(15'000);
        sonobrik_dbus_teardown(conn);
        g_free(conn);
    }

    /* Opens the connection of the fixture, which frees it. */
    void connect()
    {
        conn = sonobrik_dbus_setup(SERVICE);
        ASSERT_NE(conn, nullptr);
    }

    /* Closes the connection that a failed set-up left open. */
    static void close_what_is_left(const FailingCalls &calls)
    {
        sd_bus_flush_close_unref(calls.opened);
    }

    std::string ask()
    {
        return bus_call(stranger, SERVICE, OBJECT, INTERFACE, "Ask");
    }

    /* Makes a call that starts the watch. Its question is not sent before the loop runs again. */
    void start_watch()
    {
        do {
            ask();
        } while (conn->watch->timer == 0 || conn->watch->question);
    }

    /* Sends a message that is never read, because the source of the connection is gone. */
    void leave_message_unread() const
    {
        g_source_destroy(&conn->source->source);
        ASSERT_TRUE(g_dbus_connection_emit_signal(stranger, SERVICE, OBJECT, INTERFACE, "Said",
                                                  nullptr, nullptr));
        ASSERT_TRUE(g_dbus_connection_flush_sync(stranger, nullptr, nullptr));
        pollfd input = {.fd = sd_bus_get_fd(conn->bus), .events = POLLIN, .revents = 0};
        ASSERT_EQ(poll(&input, 1, 60'000), 1);
    }

    sonobrik_dbus *conn = nullptr;
};

} // namespace

/* Set-up. */

TEST_F(ConnectionTest, NullServiceNameFailsTheSetUp)
{
    FailingCalls calls;
    EXPECT_EQ(sonobrik_dbus_setup(nullptr), nullptr);
    expect_log(LOG_LEVEL_ERROR, "A dbus service name must be specified.");
    expect_no_log();
    EXPECT_EQ(calls.made, Steps{});
}

TEST_F(ConnectionTest, AllocationFailureFailsTheSetUp)
{
    FailingCalls calls;
    calls.fail("g_try_new0", 0);
    EXPECT_EQ(sonobrik_dbus_setup(SERVICE), nullptr);
    expect_log(LOG_LEVEL_ERROR, "Failed to allocate structure");
    expect_no_log();
    EXPECT_EQ(calls.made, Steps{"g_try_new0"});
}

TEST_F(ConnectionTest, MissingBusFailsTheSetUp)
{
    bus.stop();
    FailingCalls calls;
    EXPECT_EQ(sonobrik_dbus_setup(SERVICE), nullptr);
    expect_log(LOG_LEVEL_ERROR, "Failed to connect to system bus: No such file or directory.");
    expect_no_log();
    EXPECT_EQ(calls.count("sd_bus_error_add_map"), 0);
}

TEST_F(ConnectionTest, RefusedErrorMapFailsTheSetUp)
{
    FailingCalls calls;
    calls.fail("sd_bus_error_add_map", -ENOMEM);
    EXPECT_EQ(sonobrik_dbus_setup(SERVICE), nullptr);
    expect_log(LOG_LEVEL_ERROR, "Failed to add custom error map: Cannot allocate memory.");
    expect_no_log();
    EXPECT_EQ(calls.count("sd_bus_request_name"), 0);
    close_what_is_left(calls);
}

/* The daemon does not take the name from an owner who would give it away. */
TEST_F(ConnectionTest, OwnedNameFailsTheSetUp)
{
    FailingCalls calls;
    constexpr guint ALLOW_REPLACEMENT = 1;
    bus_call(stranger, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
             "RequestName", g_variant_new("(su)", SERVICE, ALLOW_REPLACEMENT));
    EXPECT_EQ(sonobrik_dbus_setup(SERVICE), nullptr);
    expect_log(LOG_LEVEL_ERROR, "Failed to acquire service name com.vesk.Test: File exists.");
    expect_no_log();
    EXPECT_EQ(calls.count("sd_event_new"), 0);
    close_what_is_left(calls);
}

TEST_F(ConnectionTest, InvalidNameFailsTheSetUp)
{
    FailingCalls calls;
    EXPECT_EQ(sonobrik_dbus_setup("no name"), nullptr);
    expect_log(LOG_LEVEL_ERROR, "Failed to acquire service name no name: Invalid argument.");
    expect_no_log();
    close_what_is_left(calls);
}

TEST_F(ConnectionTest, UnguardedConnectionFailsTheSetUp)
{
    FailingCalls calls;
    calls.fail("sd_bus_add_filter", -ENOMEM);
    EXPECT_EQ(sonobrik_dbus_setup(SERVICE), nullptr);
    expect_log(LOG_LEVEL_ERROR, "Failed to guard the connection: Cannot allocate memory.");
    expect_no_log();
    EXPECT_EQ(calls.count("sd_event_new"), 0);
    close_what_is_left(calls);
}

TEST_F(ConnectionTest, MissingEventLoopFailsTheSetUp)
{
    FailingCalls calls;
    calls.fail("sd_event_new", -EMFILE);
    EXPECT_EQ(sonobrik_dbus_setup(SERVICE), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "Failed to create event: Too many open files.");
    expect_log(LOG_LEVEL_ERROR, "Failed to attach to gMainLoop.");
    expect_no_log();
    EXPECT_EQ(calls.count("sd_bus_attach_event"), 0);
    close_what_is_left(calls);
}

TEST_F(ConnectionTest, EventLoopThatCannotBeAttachedIsReleased)
{
    FailingCalls calls;
    calls.fail("sd_bus_attach_event", -EBUSY);
    EXPECT_EQ(sonobrik_dbus_setup(SERVICE), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "Failed to attach event: Device or resource busy.");
    expect_log(LOG_LEVEL_ERROR, "Failed to attach to gMainLoop.");
    expect_no_log();
    EXPECT_EQ(calls.count("sd_event_unref"), 1);
    close_what_is_left(calls);
}

TEST_F(ConnectionTest, FailureToWatchTheConnectionFailsTheSetUp)
{
    FailingCalls calls;
    calls.fail("sd_bus_match_signal Disconnected");
    EXPECT_EQ(sonobrik_dbus_setup(SERVICE), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "Failed to watch the connection: Cannot allocate memory.");
    expect_log(LOG_LEVEL_ERROR, "Failed to attach to gMainLoop.");
    expect_no_log();
    close_what_is_left(calls);
}

TEST_F(ConnectionTest, SetUpTakesItsStepsInOrder)
{
    FailingCalls calls;
    connect();
    EXPECT_EQ(calls.made, (Steps{"g_try_new0", "sd_bus_open_system", "sd_bus_error_add_map",
                                 "sd_bus_request_name", "sd_bus_add_filter", "sd_bus_add_filter",
                                 "sd_event_new", "sd_bus_attach_event",
                                 "sd_bus_match_signal Disconnected", "sd_event_unref"}));
    EXPECT_EQ(calls.priority, SD_EVENT_PRIORITY_NORMAL);
    expect_no_log();
}

TEST_F(ConnectionTest, RecordHoldsTheConnectionAndItsSource)
{
    connect();
    EXPECT_TRUE(has_owner(stranger, SERVICE));
    EXPECT_EQ(conn->slot, nullptr);
    EXPECT_EQ(g_source_get_context(&conn->source->source), g_main_context_default());
    EXPECT_EQ(sd_bus_get_event(conn->bus), conn->source->event);
}

TEST_F(ConnectionTest, TwoConnectionsCanCoexist)
{
    connect();
    sonobrik_dbus *other = sonobrik_dbus_setup("com.vesk.Test.Other");
    ASSERT_NE(other, nullptr);
    EXPECT_TRUE(has_owner(stranger, SERVICE));
    EXPECT_TRUE(has_owner(stranger, "com.vesk.Test.Other"));
    expect_no_log();
    sonobrik_dbus_teardown(other);
    g_free(other);
}

TEST_F(ConnectionTest, ErrorNamesOfTheMethodsAreKnown)
{
    connect();
    for (const char *name : {
             "com.vesk.Sonobrik.StartPlayingClip",
             "com.vesk.Sonobrik.PlayClip",
             "com.vesk.Sonobrik.StopPlayingClip",
             "com.vesk.Sonobrik.SupportedFile",
             "com.vesk.Sonobrik.GetMetadata",
             "com.vesk.Sonobrik.Legacy.GetConfigurations",
             "com.vesk.Sonobrik.Legacy.GetConfigurationEntry",
             "com.vesk.Sonobrik.Legacy.SetConfigurationEntry",
             "com.vesk.Sonobrik.Legacy.AddConfiguration",
             "com.vesk.Sonobrik.Legacy.RemoveConfiguration",
             "com.vesk.Sonobrik.Legacy.Sync",
         }) {
        EXPECT_EQ(errno_of(name), -65535) << name;
    }
}

TEST_F(ConnectionTest, ErrorNameOfAddClipIsNotKnown)
{
    connect();
    EXPECT_EQ(errno_of("com.vesk.Sonobrik.AddClip"), -EIO);
}

/* Loss. */

TEST_F(ConnectionTest, LostConnectionIsLoggedAndEndsTheProcessWithOne)
{
    connect();
    shutdown(sd_bus_get_fd(conn->bus), SHUT_RDWR);
    EXPECT_TRUE(run_until([] { return !quits.empty(); }));
    EXPECT_EQ(quits, std::vector<gint32>{EXIT_FAILURE});
    expect_log(LOG_LEVEL_ERROR, "The connection of com.vesk.Test to the system bus was lost.");
    expect_no_log();
}

TEST_F(ConnectionTest, RestartOfTheBusIsALoss)
{
    connect();
    bus.stop();
    EXPECT_TRUE(run_until([] { return !quits.empty(); }));
    EXPECT_EQ(quits, std::vector<gint32>{EXIT_FAILURE});
    expect_log(LOG_LEVEL_ERROR, "The connection of com.vesk.Test to the system bus was lost.");
    bus.start();
}

TEST_F(ConnectionTest, ConnectionThatCannotBeDispatchedIsLost)
{
    connect();
    FailingCalls calls;
    calls.fail("sd_event_dispatch", -EIO);
    PendingCall pending(stranger, SERVICE, OBJECT, INTERFACE, "Ask", nullptr);
    EXPECT_TRUE(run_until([] { return !quits.empty(); }));
    EXPECT_EQ(quits, std::vector<gint32>{EXIT_FAILURE});
    EXPECT_TRUE(g_source_is_destroyed(&conn->source->source));
    expect_log(LOG_LEVEL_ERROR, "The connection of com.vesk.Test to the system bus was lost.");
}

TEST_F(ConnectionTest, AttachNeedsAConnectionAndACallback)
{
    sonobrik_dbus closed = {};
    EXPECT_FALSE(sonobrik_dbus_attach(nullptr, sonobrik_dbus_teardown));
    EXPECT_FALSE(sonobrik_dbus_attach(&closed, sonobrik_dbus_teardown));
    connect();
    EXPECT_FALSE(sonobrik_dbus_attach(conn, nullptr));
    for (int i = 0; i < 3; i++) {
        expect_log(G_LOG_LEVEL_WARNING, "sonobrik_dbus_attach: called with invalid arguments");
    }
    expect_no_log();
}

/* Registrations. */

TEST_F(ConnectionTest, ObjectCallbackRunsBeforeTheTable)
{
    connect();
    int seen = 0;
    EXPECT_GE(sonobrik_dbus_add_object(conn, OBJECT, count, &seen), 0);
    EXPECT_GE(sonobrik_dbus_add_vtable(conn, OBJECT, INTERFACE, table, nullptr), 0);
    EXPECT_EQ(ask(), "('yes',)");
    EXPECT_EQ(seen, 1);
    expect_no_log();
}

TEST_F(ConnectionTest, TableGetsItsUserData)
{
    static void *given;
    static const sd_bus_vtable keeping_table[] = {
        SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD(
            "Ask", "", "s",
            [](sd_bus_message *call, void *user_data, sd_bus_error *) {
                given = user_data;
                return sd_bus_reply_method_return(call, "s", "yes");
            },
            SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    connect();
    EXPECT_GE(sonobrik_dbus_add_vtable(conn, OBJECT, INTERFACE, keeping_table, this), 0);
    EXPECT_EQ(ask(), "('yes',)");
    EXPECT_EQ(given, this);
}

TEST_F(ConnectionTest, MatchReceivesTheSelectedMessages)
{
    connect();
    int seen = 0;
    EXPECT_GE(sonobrik_dbus_add_match(conn, "type='signal',member='Wanted'", count, &seen), 0);
    for (const char *member : {"Unwanted", "Wanted"}) {
        g_dbus_connection_emit_signal(stranger, nullptr, OBJECT, INTERFACE, member, nullptr,
                                      nullptr);
    }
    bus_call(stranger, SERVICE, "/", "org.freedesktop.DBus.Peer", "Ping");
    EXPECT_EQ(seen, 1);
}

TEST_F(ConnectionTest, EachRegistrationOverwritesTheSlot)
{
    connect();
    sonobrik_dbus_add_object(conn, OBJECT, ignore, nullptr);
    sd_bus_slot *first = conn->slot;
    EXPECT_NE(first, nullptr);
    sonobrik_dbus_add_vtable(conn, OBJECT, INTERFACE, table, nullptr);
    sd_bus_slot *second = conn->slot;
    EXPECT_NE(second, first);
    sonobrik_dbus_add_match(conn, "member='Wanted'", ignore, nullptr);
    EXPECT_NE(conn->slot, second);
    EXPECT_EQ(ask(), "('yes',)"); /* earlier registrations still work */
}

TEST_F(ConnectionTest, ErrorsOfSdBusAreReturnedUnchanged)
{
    connect();
    EXPECT_EQ(sonobrik_dbus_add_object(conn, "no path", ignore, nullptr), -EINVAL);
    EXPECT_EQ(sonobrik_dbus_add_vtable(conn, OBJECT, "no interface", table, nullptr), -EINVAL);
    EXPECT_EQ(sonobrik_dbus_add_match(conn, "no match", ignore, nullptr), -EINVAL);
    EXPECT_GE(sonobrik_dbus_add_vtable(conn, OBJECT, INTERFACE, table, nullptr), 0);
    EXPECT_EQ(sonobrik_dbus_add_vtable(conn, OBJECT, INTERFACE, table, nullptr), -EEXIST);
    expect_no_log();
}

TEST_F(ConnectionTest, AddObjectRefusesEachNullArgument)
{
    constexpr const char *line = "sonobrik_dbus_add_object: called with invalid arguments";
    connect();
    sonobrik_dbus closed = {};
    EXPECT_EQ(sonobrik_dbus_add_object(nullptr, OBJECT, ignore, nullptr), -1);
    expect_log(G_LOG_LEVEL_WARNING, line);
    EXPECT_EQ(sonobrik_dbus_add_object(&closed, OBJECT, ignore, nullptr), -1);
    expect_log(G_LOG_LEVEL_WARNING, line);
    EXPECT_EQ(sonobrik_dbus_add_object(conn, nullptr, ignore, nullptr), -1);
    expect_log(G_LOG_LEVEL_WARNING, line);
    EXPECT_EQ(sonobrik_dbus_add_object(conn, OBJECT, nullptr, nullptr), -1);
    expect_log(G_LOG_LEVEL_WARNING, line);
    expect_no_log();
}

TEST_F(ConnectionTest, AddVtableRefusesEachNullArgument)
{
    constexpr const char *line = "sonobrik_dbus_add_vtable: called with invalid arguments";
    connect();
    sonobrik_dbus closed = {};
    EXPECT_EQ(sonobrik_dbus_add_vtable(nullptr, OBJECT, INTERFACE, table, nullptr), -1);
    expect_log(G_LOG_LEVEL_WARNING, line);
    EXPECT_EQ(sonobrik_dbus_add_vtable(&closed, OBJECT, INTERFACE, table, nullptr), -1);
    expect_log(G_LOG_LEVEL_WARNING, line);
    EXPECT_EQ(sonobrik_dbus_add_vtable(conn, nullptr, INTERFACE, table, nullptr), -1);
    expect_log(G_LOG_LEVEL_WARNING, line);
    EXPECT_EQ(sonobrik_dbus_add_vtable(conn, OBJECT, nullptr, table, nullptr), -1);
    expect_log(G_LOG_LEVEL_WARNING, line);
    EXPECT_EQ(sonobrik_dbus_add_vtable(conn, OBJECT, INTERFACE, nullptr, nullptr), -1);
    expect_log(G_LOG_LEVEL_WARNING, line);
    expect_no_log();
}

TEST_F(ConnectionTest, AddMatchRefusesEachNullArgument)
{
    constexpr const char *line = "sonobrik_dbus_add_match: called with invalid arguments";
    connect();
    sonobrik_dbus closed = {};
    EXPECT_EQ(sonobrik_dbus_add_match(nullptr, "member='Wanted'", ignore, nullptr), -1);
    expect_log(G_LOG_LEVEL_WARNING, line);
    EXPECT_EQ(sonobrik_dbus_add_match(&closed, "member='Wanted'", ignore, nullptr), -1);
    expect_log(G_LOG_LEVEL_WARNING, line);
    EXPECT_EQ(sonobrik_dbus_add_match(conn, nullptr, ignore, nullptr), -1);
    expect_log(G_LOG_LEVEL_WARNING, line);
    EXPECT_EQ(sonobrik_dbus_add_match(conn, "member='Wanted'", nullptr, nullptr), -1);
    expect_log(G_LOG_LEVEL_WARNING, line);
    expect_no_log();
}

/* Teardown. */

TEST_F(ConnectionTest, TeardownOfNullDoesNothing)
{
    FailingCalls calls;
    sonobrik_dbus_teardown(nullptr);
    EXPECT_EQ(calls.made, Steps{});
    expect_no_log();
}

TEST_F(ConnectionTest, TeardownReleasesSourceSlotAndConnectionInOrder)
{
    connect();
    sonobrik_dbus_add_object(conn, OBJECT, ignore, nullptr);
    GSource *source = g_source_ref(&conn->source->source);
    {
        FailingCalls calls;
        sonobrik_dbus_teardown(conn);
        EXPECT_EQ(calls.made, (Steps{"sd_bus_slot_unref", "sd_bus_flush_close_unref"}));
    }
    EXPECT_TRUE(g_source_is_destroyed(source));
    g_source_unref(source);
    EXPECT_EQ(conn->source, nullptr);
    EXPECT_EQ(conn->slot, nullptr);
    EXPECT_EQ(conn->bus, nullptr);
    EXPECT_TRUE(loses_owner(stranger, SERVICE));
}

TEST_F(ConnectionTest, TeardownDestroysTheSource)
{
    connect();
    /* Only the connection holds its event loop afterwards. */
    sd_event *event = sd_event_ref(conn->source->event);
    bool is_gone = false;
    sd_event_source *kept = nullptr;
    const auto nothing = [](sd_event_source *, void *) {
        return 0;
    };
    ASSERT_GE(sd_event_add_exit(event, &kept, nothing, &is_gone), 0);
    ASSERT_GE(sd_event_source_set_floating(kept, true), 0);
    sd_event_source_set_destroy_callback(kept,
                                         [](void *gone) { *static_cast<bool *>(gone) = true; });
    sd_event_source_unref(kept);
    sonobrik_dbus_teardown(conn);
    EXPECT_FALSE(is_gone);
    sd_event_unref(event);
    EXPECT_TRUE(is_gone);
}

TEST_F(ConnectionTest, SecondTeardownDoesNothing)
{
    connect();
    sonobrik_dbus_teardown(conn);
    sonobrik_dbus_teardown(conn);
    expect_no_log();
}

TEST_F(ConnectionTest, ConnectionIsClosedEvenIfOverwrittenSlotsKeepItAlive)
{
    connect();
    sonobrik_dbus_add_object(conn, OBJECT, ignore, nullptr);
    sonobrik_dbus_add_vtable(conn, OBJECT, INTERFACE, table, nullptr);
    sonobrik_dbus_teardown(conn);
    EXPECT_TRUE(loses_owner(stranger, SERVICE));
    g_free(conn);
    connect(); /* the name is free */
}

TEST_F(ConnectionTest, TeardownSendsQueuedMessages)
{
    connect();
    SignalLog heard(stranger, SERVICE);
    bus.freeze();
    uint64_t queued = 0;
    int sent = 0;
    const std::string ballast(100000, 'x');
    while (queued == 0) {
        ASSERT_GE(sd_bus_emit_signal(conn->bus, OBJECT, INTERFACE, "Said", "s", ballast.c_str()),
                  0);
        ASSERT_GE(sd_bus_get_n_queued_write(conn->bus, &queued), 0);
        sent++;
    }
    bus.thaw();
    sonobrik_dbus_teardown(conn);
    EXPECT_TRUE(run_until([&] { return static_cast<int>(heard.lines.size()) == sent; }));
}

TEST_F(ConnectionTest, TeardownDoesNotWaitForABusThatDoesNotRead)
{
    connect();
    bus.freeze();
    const std::string ballast(1000000, 'x');
    ASSERT_GE(sd_bus_emit_signal(conn->bus, OBJECT, INTERFACE, "Said", "s", ballast.c_str()), 0);
    const gint64 start = g_get_monotonic_time();
    sonobrik_dbus_teardown(conn);
    EXPECT_LT(g_get_monotonic_time() - start, 5 * G_USEC_PER_SEC);
    bus.thaw();
    EXPECT_TRUE(loses_owner(stranger, SERVICE));
}

/* A bus that does not read. */

TEST_F(ConnectionTest, BusThatStopsReadingCountsAsLost)
{
    bus_watch_set_interval(500);
    connect();
    start_watch();
    bus.freeze();
    EXPECT_TRUE(run_until([] { return !quits.empty(); }));
    expect_log(LOG_LEVEL_ERROR, "The connection of com.vesk.Test to the system bus was lost.");
    expect_no_log();
    bus.thaw();
}

/* The answer may be among the messages that a slow handler has kept from being read. */
TEST_F(ConnectionTest, BusIsNotLostSoonWhileMessagesWaitToBeRead)
{
    constexpr guint INTERVAL = 100;
    bus_watch_set_interval(INTERVAL);
    connect();
    start_watch();
    const gint64 start = g_get_monotonic_time();
    leave_message_unread();
    bus.freeze();
    EXPECT_TRUE(run_until([] { return !quits.empty(); }));
    EXPECT_GE(g_get_monotonic_time() - start, 20 * INTERVAL * G_TIME_SPAN_MILLISECOND);
    expect_log(LOG_LEVEL_ERROR, "The connection of com.vesk.Test to the system bus was lost.");
    bus.thaw();
}

/* The bus drops its answer if too many bytes wait for the daemon already. */
TEST_F(ConnectionTest, BusThatReadsIsNotLostWithoutAnAnswer)
{
    bus_watch_set_interval(1000);
    connect();
    start_watch();
    g_source_destroy(&conn->source->source); /* the answer is not read */
    EXPECT_TRUE(run_until([this] { return conn->watch->question != nullptr; }));
    EXPECT_TRUE(run_until([this] { return conn->watch->timer == 0; }));
    EXPECT_TRUE(quits.empty());
    expect_no_log();
}

TEST_F(ConnectionTest, BusThatAnswersIsAskedAgainOnlyAfterACall)
{
    bus_watch_set_interval(2000); /* a busy machine must not look like a bus that does not read */
    connect();
    FailingCalls calls;
    for (int count = 1; count <= 2; count++) {
        ask();
        EXPECT_TRUE(run_until(
            [&] { return calls.count("sd_bus_call_async") == count && conn->watch->timer == 0; }));
    }
    EXPECT_TRUE(quits.empty());
    expect_no_log();
}
