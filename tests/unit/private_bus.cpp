#include "private_bus.h"

#include <cstdlib>
#include <glib/gstdio.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

/* Long enough for an emulated processor on a busy machine. */
constexpr gint64 PATIENCE_USEC = 150 * G_USEC_PER_SEC;

constexpr const char *CONFIGURATION = R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=%s/socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    %s
  </policy>
</busconfig>
)";

void die_with_the_test(gpointer)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

/* The bus prints its address once it listens. */
bool wait_for_line(int fd)
{
    struct pollfd announced = {.fd = fd, .events = POLLIN, .revents = 0};
    if (poll(&announced, 1, static_cast<int>(PATIENCE_USEC / 1000)) != 1) {
        return false;
    }
    char byte = '\0';
    while (read(fd, &byte, 1) == 1) {
        if (byte == '\n') {
            return true;
        }
    }
    return false;
}

std::string print(GVariant *value)
{
    g_autofree char *text = g_variant_print(value, TRUE);
    return text;
}

void keep_result(GObject *, GAsyncResult *result, gpointer data)
{
    *static_cast<GAsyncResult **>(data) = static_cast<GAsyncResult *>(g_object_ref(result));
}

} // namespace

bool run_until(const std::function<bool()> &done)
{
    const gint64 deadline = g_get_monotonic_time() + PATIENCE_USEC;
    /* Wakes an iteration in which nothing happens. */
    const guint tick = g_timeout_add(
        100, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
    bool is_done = done();
    while (!is_done && g_get_monotonic_time() < deadline) {
        g_main_context_iteration(nullptr, TRUE);
        is_done = done();
    }
    g_source_remove(tick);
    return is_done;
}

PrivateBus::PrivateBus(const std::string &rules)
{
    g_autofree char *made = g_dir_make_tmp("sonobrik-bus-XXXXXX", nullptr);
    folder = made;
    chmod(made, 0755); /* lets clients of other users in */
    address = "unix:path=" + folder + "/socket";
    g_autofree char *text = g_strdup_printf(CONFIGURATION, made, rules.c_str());
    g_file_set_contents((folder + "/bus.conf").c_str(), text, -1, nullptr);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    start();
}

PrivateBus::~PrivateBus()
{
    stop();
    g_unlink((folder + "/bus.conf").c_str());
    g_rmdir(folder.c_str());
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

void PrivateBus::start()
{
    const std::string option = "--config-file=" + folder + "/bus.conf";
    const char *arguments[] = {"dbus-daemon",  "--nofork",        "--nopidfile", "--nosyslog",
                               option.c_str(), "--print-address", nullptr};
    int out = -1;
    g_autoptr(GError) error = nullptr;
    ASSERT_TRUE(g_spawn_async_with_pipes(
        nullptr, const_cast<char **>(arguments), nullptr,
        static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD |
                                 G_SPAWN_STDERR_TO_DEV_NULL),
        die_with_the_test, nullptr, &pid, nullptr, &out, nullptr, &error))
        << error->message;
    const bool listens = wait_for_line(out);
    close(out);
    ASSERT_TRUE(listens) << "dbus-daemon does not start";
}

void PrivateBus::stop()
{
    if (pid != 0) {
        kill(pid, SIGKILL); /* kills a frozen process too */
        waitpid(pid, nullptr, 0);
        g_spawn_close_pid(pid);
        pid = 0;
        g_unlink((folder + "/socket").c_str());
    }
}

void PrivateBus::freeze()
{
    kill(pid, SIGSTOP);
    waitpid(pid, nullptr, WUNTRACED);
}

void PrivateBus::thaw()
{
    kill(pid, SIGCONT);
}

GDBusConnection *PrivateBus::connect() const
{
    g_autoptr(GError) error = nullptr;
    GDBusConnection *peer = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!peer) {
        ADD_FAILURE() << "no connection to the private bus: " << error->message;
    }
    return peer;
}

std::string bus_call(GDBusConnection *peer, const std::string &service, const std::string &object,
                     const std::string &interface, const std::string &method, GVariant *arguments)
{
    GAsyncResult *result = nullptr;
    /* The call times out before run_until() does, because keep_result() writes to `result`. */
    g_dbus_connection_call(peer, service.c_str(), object.c_str(), interface.c_str(), method.c_str(),
                           arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, PATIENCE_USEC / 1000 - 1000,
                           nullptr, keep_result, &result);
    if (!run_until([&] { return result != nullptr; })) {
        ADD_FAILURE() << "no reply to " << method;
        return "";
    }
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = g_dbus_connection_call_finish(peer, result, &error);
    g_object_unref(result);
    if (reply) {
        return print(reply);
    }
    g_autofree char *name = g_dbus_error_get_remote_error(error);
    g_dbus_error_strip_remote_error(error);
    return (name ? std::string(name) + ": " : "") + error->message;
}

std::string bus_get(GDBusConnection *peer, const std::string &service, const std::string &object,
                    const std::string &interface, const std::string &property)
{
    const std::string reply =
        bus_call(peer, service, object, "org.freedesktop.DBus.Properties", "Get",
                 g_variant_new("(ss)", interface.c_str(), property.c_str()));
    /* A reply prints as "(<VALUE>,)", an error as text without brackets. */
    return reply.starts_with("(<") ? reply.substr(2, reply.size() - 5) : reply;
}

SignalLog::SignalLog(GDBusConnection *peer_, const std::string &sender) : peer(peer_)
{
    const auto record = [](GDBusConnection *, const char *, const char *object,
                           const char *interface, const char *signal, GVariant *arguments,
                           gpointer log) {
        static_cast<SignalLog *>(log)->lines.push_back(std::string(object) + " " + interface + "." +
                                                       signal + " " + print(arguments));
    };
    id =
        g_dbus_connection_signal_subscribe(peer, sender.c_str(), nullptr, nullptr, nullptr, nullptr,
                                           G_DBUS_SIGNAL_FLAGS_NONE, record, this, nullptr);
    /* Once the bus has answered a later call, it has processed the subscription. */
    bus_call(peer, "org.freedesktop.DBus", "/", "org.freedesktop.DBus.Peer", "Ping");
}

SignalLog::~SignalLog()
{
    g_dbus_connection_signal_unsubscribe(peer, id);
}

BusTest::BusTest() : stranger(bus.connect()) {}

BusTest::~BusTest()
{
    g_object_unref(stranger);
}
