#include "platform/access_policy.h"

#include <memory>
#include <string>
#include <thread>

#include "access_policy_file.h"
#include "impatient.h"
#include "platform_bus.h"
#include "private_bus.h"
#include "temp_dir.h"

/* What the access policy makes of replies that a real bus seldom or never gives. */

namespace
{

constexpr const char *DRIVER = "org.freedesktop.DBus";
constexpr const char *ADDRESS = "unix:path=driver";
constexpr const char *GUID = "0123456789abcdef0123456789abcdef";
constexpr const char *CALLER = ":1.7";

/* A mock of the bus driver. It has a thread of its own, because the policy's call blocks. */
class PlayedDriver
{
  public:
    PlayedDriver()
    {
        /* The server accepts connections in the context that is the default while it is created. */
        g_main_context_push_thread_default(context);
        server = g_dbus_server_new_sync(ADDRESS, G_DBUS_SERVER_FLAGS_NONE, GUID, nullptr, nullptr,
                                        nullptr);
        g_main_context_pop_thread_default(context);
        g_signal_connect(server, "new-connection", G_CALLBACK(accept), this);
        g_dbus_server_start(server);
        thread = std::thread(g_main_loop_run, loop);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", ADDRESS, 1);
    }

    ~PlayedDriver()
    {
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
        g_main_loop_quit(loop);
        thread.join();
        g_dbus_server_stop(server);
        g_object_unref(server);
        if (connection) {
            g_dbus_connection_close_sync(connection, nullptr, nullptr);
            g_object_unref(connection);
        }
        g_main_loop_unref(loop);
        g_main_context_unref(context);
    }

    PlayedDriver(const PlayedDriver &) = delete;
    PlayedDriver &operator=(const PlayedDriver &) = delete;

    /* The reply to GetConnectionCredentials, as g_variant_parse() reads it, or an error's name. */
    std::string credentials;
    std::string error;

  private:
    static gboolean accept(GDBusServer *, GDBusConnection *client, PlayedDriver *driver)
    {
        driver->connection = G_DBUS_CONNECTION(g_object_ref(client));
        g_dbus_connection_add_filter(client, handle, driver, nullptr);
        return TRUE;
    }

    static GDBusMessage *handle(GDBusConnection *client, GDBusMessage *message, gboolean incoming,
                                gpointer driver)
    {
        if (!incoming) {
            return message;
        }
        g_autoptr(GDBusMessage) call = message;
        g_autoptr(GDBusMessage) reply = static_cast<PlayedDriver *>(driver)->answer(call);
        g_dbus_message_set_sender(reply, DRIVER);
        g_dbus_connection_send_message(client, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                       nullptr);
        return nullptr;
    }

    GDBusMessage *answer(GDBusMessage *call) const
    {
        const bool greets = g_str_equal(g_dbus_message_get_member(call), "Hello");
        if (!greets && !error.empty()) {
            return g_dbus_message_new_method_error_literal(call, error.c_str(), "refused");
        }
        GDBusMessage *reply = g_dbus_message_new_method_reply(call);
        const char *values = greets ? "(':1.1',)" : credentials.c_str();
        g_dbus_message_set_body(reply, g_variant_new_parsed(values));
        return reply;
    }

    GMainContext *context = g_main_context_new();
    GMainLoop *loop = g_main_loop_new(context, FALSE);
    std::thread thread;
    GDBusServer *server;
    GDBusConnection *connection = nullptr;
};

class AccessPolicyReplies : public LogTest
{
  protected:
    AccessPolicyReplies()
    {
        access_policy_file_set_path("access.conf");
        platform_bus_set_timeout(IMPATIENT_USEC);
        write_file("access.conf", "[com.vesk.Sonobrik]\nusers=root\n");
        EXPECT_TRUE(access_policy_init(nullptr));
    }

    /* The service keeps its connection, so the loop must notice its loss before the next test. */
    ~AccessPolicyReplies() override
    {
        driver.reset();
        run_until([] { return !g_main_context_pending(nullptr); });
    }

    /* Lets the driver answer with `credentials`. Returns "admitted", or why the caller is refused.
     */
    std::string check_with(const std::string &credentials)
    {
        driver->credentials = credentials;
        g_autoptr(GError) error = nullptr;
        const bool admitted = access_policy_check(CALLER, "com.vesk.Sonobrik.PlayClip", &error);
        EXPECT_EQ(admitted, error == nullptr);
        return error ? error->message : "admitted";
    }

    WorkingTempDir folder;
    std::unique_ptr<PlayedDriver> driver = std::make_unique<PlayedDriver>();
};

constexpr const char *NO_USER = "the bus does not know the user of the caller ':1.7'";

TEST_F(AccessPolicyReplies, AdmitAKnownUser)
{
    EXPECT_EQ(check_with("({'ProcessID': <uint32 7>, 'UnixUserID': <uint32 0>},)"), "admitted");
}

TEST_F(AccessPolicyReplies, RefuseACallerWithoutAUser)
{
    EXPECT_EQ(check_with("({'ProcessID': <uint32 7>, 'UnixGroupIDs': <[uint32 0]>},)"), NO_USER);
}

TEST_F(AccessPolicyReplies, RefuseACallerAboutWhomTheBusKnowsNothing)
{
    EXPECT_EQ(check_with("(@a{sv} {},)"), NO_USER);
}

TEST_F(AccessPolicyReplies, TakeNoUserOfAnotherType)
{
    EXPECT_EQ(check_with("({'UnixUserID': <'0'>},)"), NO_USER);
    EXPECT_EQ(check_with("({'UnixUserID': <uint64 0>},)"), NO_USER);
}

TEST_F(AccessPolicyReplies, TakeNoGroupsOfAnotherType)
{
    EXPECT_EQ(check_with("({'UnixUserID': <uint32 0>, 'UnixGroupIDs': <'root'>},)"), "admitted");
}

TEST_F(AccessPolicyReplies, RefuseACallerIfTheReplyHasAnotherType)
{
    EXPECT_EQ(check_with("('root',)"),
              "the bus did not identify the caller ':1.7': No such device or address");
}

TEST_F(AccessPolicyReplies, RefuseACallerIfTheBusRefusesToTell)
{
    driver->error = "org.freedesktop.DBus.Error.AccessDenied";
    EXPECT_EQ(check_with("()"), "the bus did not identify the caller ':1.7': refused");
    driver->error.clear();
    EXPECT_EQ(check_with("({'UnixUserID': <uint32 0>},)"), "admitted");
}

} // namespace
