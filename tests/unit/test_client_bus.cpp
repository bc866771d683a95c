#include "client_bus.h"

#include <cerrno>
#include <cstdint>

#include "autoptr.h"
#include "played_daemon.h"
#include "private_bus.h"

namespace
{

uint64_t last_timeout;

} // namespace

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
int __real_sd_bus_call(sd_bus *bus, sd_bus_message *call, uint64_t usec, sd_bus_error *error,
                       sd_bus_message **answer);

/* Records the time-out that the code under test uses. */
int __wrap_sd_bus_call(sd_bus *bus, sd_bus_message *call, uint64_t usec, sd_bus_error *error,
                       sd_bus_message **answer)
{
    last_timeout = usec;
    return __real_sd_bus_call(bus, call, usec, error, answer);
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace
{

class ClientBus : public BusTest
{
  protected:
    ClientBus() : client(client_bus_open(nullptr)) {}

    ~ClientBus() override
    {
        sd_bus_flush_close_unref(client);
    }

    /* Calls PlayClip. Returns "code: message" of the error, or "answered". */
    std::string call(const char *text = "location=/a")
    {
        g_autoptr(GError) error = nullptr;
        sd_bus_message *message =
            client_bus_new_call(client, &CLIENT_SONOBRIK, "PlayClip", &error, "s", text);
        g_autoptr(sd_bus_message) answer = client_bus_call(client, message, &error);
        EXPECT_EQ(answer == nullptr, error != nullptr);
        return error ? std::to_string(error->code) + ": " + error->message : "answered";
    }

    sd_bus *client;
};

std::string map(int reason, const char *name, const char *text)
{
    const sd_bus_error bus_error = {.name = name, .message = text, ._need_free = 0};
    g_autoptr(GError) error = nullptr;
    client_bus_set_error(&error, reason, name ? &bus_error : nullptr);
    EXPECT_TRUE(error->domain == CLIENT_ERROR);
    return std::to_string(error->code) + ": " + error->message;
}

std::string with(ClientErrorCode code, const std::string &text)
{
    return std::to_string(code) + ": " + text;
}

TEST(ClientBusWithout, ReportsAMissingBus)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/socket", 1);
    g_autoptr(GError) error = nullptr;
    EXPECT_EQ(client_bus_open(&error), nullptr);
    ASSERT_TRUE(g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_NO_BUS));
    EXPECT_STREQ(error->message, "No such file or directory");
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

TEST_F(ClientBus, SendsTheArgumentsToTheInterface)
{
    std::string seen;
    const PlayedDaemon daemon({CLIENT_SONOBRIK.service}, [&seen](sd_bus_message *message) {
        const char *text = nullptr;
        sd_bus_message_read(message, "s", &text);
        seen = std::string(sd_bus_message_get_path(message)) + " " +
               sd_bus_message_get_interface(message) + "." + sd_bus_message_get_member(message) +
               " " + text;
        return sd_bus_reply_method_return(message, "s", "OK");
    });
    EXPECT_EQ(call("location=/b"), "answered");
    EXPECT_EQ(seen, "/com/vesk/Sonobrik com.vesk.Sonobrik.PlayClip location=/b");
}

TEST_F(ClientBus, WaitsForAReplyWithoutLimit)
{
    const PlayedDaemon daemon({CLIENT_SONOBRIK.service}, [](sd_bus_message *message) {
        return sd_bus_reply_method_return(message, "s", "OK");
    });
    last_timeout = 0;
    EXPECT_EQ(call(), "answered");
    EXPECT_EQ(last_timeout, UINT64_MAX);
}

TEST_F(ClientBus, StopsWaitingAtTheLimit)
{
    const PlayedDaemon daemon({CLIENT_SONOBRIK.service}, [](sd_bus_message *) { return 1; });
    client_bus_set_limit(client, 1);
    EXPECT_TRUE(call().starts_with(with(CLIENT_ERROR_TIMEOUT, "")));
}

TEST_F(ClientBus, SharesATotalLimitAmongTheCalls)
{
    int received = 0;
    const PlayedDaemon daemon({CLIENT_SONOBRIK.service}, [&received](sd_bus_message *message) {
        return received++ == 0 ? sd_bus_reply_method_return(message, "s", "OK") : 1;
    });
    constexpr guint LIMIT = 3; /* seconds; long enough for the first answer on a busy machine */
    client_bus_set_total_limit(LIMIT);
    EXPECT_EQ(call(), "answered");
    EXPECT_LE(last_timeout, LIMIT * G_USEC_PER_SEC);
    EXPECT_TRUE(call().starts_with(with(CLIENT_ERROR_TIMEOUT, "")));
    EXPECT_LT(last_timeout, LIMIT * G_USEC_PER_SEC);
    EXPECT_TRUE(call().starts_with(with(CLIENT_ERROR_TIMEOUT, "")));
    EXPECT_EQ(received, 2);
    client_bus_set_total_limit(0);
}

TEST_F(ClientBus, PassesTheDaemonsErrorTextOn)
{
    const PlayedDaemon daemon({CLIENT_SONOBRIK.service}, [](sd_bus_message *message) {
        return sd_bus_reply_method_errorf(message, "com.vesk.Sonobrik.PlayClip",
                                          "A clip is already playing.");
    });
    EXPECT_EQ(call(), with(CLIENT_ERROR_METHOD, "A clip is already playing."));
}

TEST_F(ClientBus, ReportsAMissingDaemon)
{
    EXPECT_TRUE(call().starts_with(with(CLIENT_ERROR_NO_DAEMON, "")));
}

TEST_F(ClientBus, StopsWaitingWhenTheDaemonExits)
{
    PlayedDaemon *self = nullptr;
    PlayedDaemon daemon({CLIENT_SONOBRIK.service}, [&self](sd_bus_message *) {
        self->leave();
        return 1;
    });
    self = &daemon;
    EXPECT_TRUE(call().starts_with(with(CLIENT_ERROR_NO_DAEMON, "")));
}

TEST_F(ClientBus, StopsWaitingWhenTheBusExits)
{
    const PlayedDaemon daemon({CLIENT_SONOBRIK.service}, [this](sd_bus_message *) {
        bus.stop();
        return 1;
    });
    EXPECT_EQ(call(), with(CLIENT_ERROR_NO_BUS, "Connection reset by peer"));
    EXPECT_TRUE(call().starts_with(with(CLIENT_ERROR_NO_BUS, ""))) << "the connection stays closed";
}

TEST_F(ClientBus, RejectsInvalidUtf8)
{
    EXPECT_TRUE(call("location=\xff").starts_with(with(CLIENT_ERROR_ARGUMENT, "")));
}

TEST_F(ClientBus, KeepsTheErrorIfTheCallIsNull)
{
    g_autoptr(GError) error = g_error_new_literal(CLIENT_ERROR, CLIENT_ERROR_ARGUMENT, "before");
    EXPECT_EQ(client_bus_call(client, nullptr, &error), nullptr);
    EXPECT_STREQ(error->message, "before");
}

/* Appends whether the name of the signal now has an owner to `data`, a vector of strings. */
int record_owner(sd_bus_message *signal, void *data, sd_bus_error *)
{
    const char *name = nullptr;
    const char *owner = nullptr;
    EXPECT_GT(sd_bus_message_read(signal, "sss", &name, nullptr, &owner), 0);
    static_cast<std::vector<std::string> *>(data)->push_back(
        std::string(name) + (owner && *owner != '\0' ? " is owned" : " is free"));
    return 0;
}

TEST_F(ClientBus, ReportsTheOwnersOfOneNameOnly)
{
    const auto handler = [](sd_bus_message *) {
        return 0;
    };
    std::vector<std::string> owners;
    ASSERT_GE(client_bus_match_owner(client, "com.vesk.Name", record_owner, &owners), 0);
    {
        const PlayedDaemon other({"com.vesk.Other"}, handler);
        const PlayedDaemon named({"com.vesk.Name"}, handler);
    }
    while (owners.size() < 2) {
        const int r = sd_bus_process(client, nullptr);
        ASSERT_GE(r, 0);
        if (r == 0) {
            ASSERT_GT(sd_bus_wait(client, UINT64_C(60'000'000)), 0);
        }
    }
    EXPECT_EQ(owners,
              std::vector<std::string>({"com.vesk.Name is owned", "com.vesk.Name is free"}));
}

TEST(ClientBusError, MapsEachKindOfError)
{
    const char *denied = "org.freedesktop.DBus.Error.AccessDenied";
    EXPECT_EQ(map(-EACCES, denied, "no"), with(CLIENT_ERROR_DENIED, "no"));
    EXPECT_EQ(map(-EACCES, denied, nullptr), with(CLIENT_ERROR_DENIED, denied));
    for (const char *name : {
             "org.freedesktop.DBus.Error.NameHasNoOwner",
             "org.freedesktop.DBus.Error.NoReply",
             "org.freedesktop.DBus.Error.ServiceUnknown",
             "org.freedesktop.DBus.Error.Spawn.ChildExited",
             "org.freedesktop.DBus.Error.TimedOut",
             "org.freedesktop.DBus.Error.Timeout",
             "org.freedesktop.systemd1.NoSuchUnit",
         }) {
        EXPECT_EQ(map(-EIO, name, "gone"), with(CLIENT_ERROR_NO_DAEMON, "gone")) << name;
    }
    EXPECT_EQ(map(-EIO, "com.vesk.Sonobrik.Legacy.Sync", ""), with(CLIENT_ERROR_METHOD, ""));
    EXPECT_EQ(map(-EBADR, "org.freedesktop.DBus.Error.UnknownMethod", "what?"),
              with(CLIENT_ERROR_REPLY, "what?"));
    EXPECT_EQ(map(-EIO, "org.freedesktop.DBus.Error.NoReplyAtAll", "odd"),
              with(CLIENT_ERROR_REPLY, "odd"))
        << "a longer name does not match";
    EXPECT_EQ(map(-ECONNRESET, nullptr, nullptr),
              with(CLIENT_ERROR_NO_BUS, "Connection reset by peer"));
    EXPECT_EQ(map(-EPIPE, nullptr, nullptr), with(CLIENT_ERROR_NO_BUS, "Broken pipe"));
    EXPECT_EQ(map(-ENOTCONN, nullptr, nullptr).substr(0, 1), std::to_string(CLIENT_ERROR_NO_BUS));
    EXPECT_EQ(map(-EBADMSG, nullptr, nullptr), with(CLIENT_ERROR_REPLY, "Bad message"));
}

} // namespace
