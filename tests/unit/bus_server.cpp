#include "bus_server.h"

#include <glib-unix.h>

#include "private_bus.h"

namespace
{

gboolean process(gint, GIOCondition, gpointer bus)
{
    int r = 1;
    while (r > 0) {
        r = sd_bus_process(static_cast<sd_bus *>(bus), nullptr);
    }
    return r == 0 ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

} // namespace

BusServer::BusServer()
{
    const char *unique_name = "";
    EXPECT_GE(sd_bus_open_system(&bus), 0);
    EXPECT_GE(sd_bus_get_unique_name(bus, &unique_name), 0);
    name = unique_name;
    watch = g_unix_fd_add(sd_bus_get_fd(bus), G_IO_IN, process, bus);
}

BusServer::~BusServer()
{
    g_source_remove(watch);
    sd_bus_flush_close_unref(bus);
}

void BusServer::serve(const char *path, sd_bus_message_handler_t handler, void *user_data)
{
    EXPECT_GE(sd_bus_add_object(bus, nullptr, path, handler, user_data), 0);
}

PendingCall::PendingCall(GDBusConnection *peer, const std::string &service, const char *object,
                         const char *interface, const char *method, GVariant *arguments)
    : cancellable(g_cancellable_new()), answer(std::make_shared<Answer>())
{
    g_autoptr(GDBusMessage) call =
        g_dbus_message_new_method_call(service.c_str(), object, interface, method);
    if (arguments) {
        g_dbus_message_set_body(call, arguments);
    }
    g_dbus_connection_send_message_with_reply(peer, call, G_DBUS_SEND_MESSAGE_FLAGS_NONE, -1,
                                              nullptr, cancellable, keep,
                                              new std::shared_ptr<Answer>(answer));
}

PendingCall::~PendingCall()
{
    g_cancellable_cancel(cancellable);
    EXPECT_TRUE(run_until([this] { return answer->is_there; }));
    g_object_unref(cancellable);
}

void PendingCall::keep(GObject *peer, GAsyncResult *result, gpointer data)
{
    static int answered;

    auto *answer = static_cast<std::shared_ptr<Answer> *>(data);
    g_autoptr(GError) error = nullptr;
    g_autoptr(GDBusMessage) reply =
        g_dbus_connection_send_message_with_reply_finish(G_DBUS_CONNECTION(peer), result, &error);
    (*answer)->is_there = true;
    (*answer)->rank = answered++;
    if (!reply) {
        (*answer)->text = error->message;
    } else if (g_dbus_message_get_message_type(reply) == G_DBUS_MESSAGE_TYPE_ERROR) {
        (*answer)->text = std::string(g_dbus_message_get_error_name(reply)) + ": " +
                          g_dbus_message_get_arg0(reply);
    } else {
        GVariant *body = g_dbus_message_get_body(reply);
        g_autofree char *text = body ? g_variant_print(body, TRUE) : g_strdup("()");
        (*answer)->text = text;
    }
    delete answer;
}

bool PendingCall::is_answered() const
{
    return answer->is_there;
}

std::string PendingCall::wait()
{
    EXPECT_TRUE(run_until([this] { return answer->is_there; })) << "no answer";
    return answer->text;
}

int PendingCall::rank() const
{
    return answer->rank;
}

void settle(GDBusConnection *peer, const std::string &service)
{
    EXPECT_EQ(bus_call(peer, service, "/", "org.freedesktop.DBus.Peer", "Ping"), "()");
}
