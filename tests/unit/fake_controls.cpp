#include "fake_controls.h"

namespace
{

constexpr const char *SERVICE = "com.vesk.Onscreencontrols1";

} // namespace

FakeControls::FakeControls(const PrivateBus &bus) : connection(bus.connect())
{
    filter_id = g_dbus_connection_add_filter(connection, filter, this, nullptr);
    EXPECT_EQ(bus_call(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                       "org.freedesktop.DBus", "RequestName", g_variant_new("(su)", SERVICE, 0)),
              "(uint32 1,)");
}

FakeControls::~FakeControls()
{
    g_dbus_connection_remove_filter(connection, filter_id);
    g_dbus_connection_close_sync(connection, nullptr, nullptr);
    g_object_unref(connection);
}

std::vector<std::string> FakeControls::requests()
{
    const std::lock_guard guard(lock);
    return made;
}

std::set<std::string> FakeControls::callers()
{
    const std::lock_guard guard(lock);
    return made_by;
}

/* Runs on GDBus's own thread. */
GDBusMessage *FakeControls::filter(GDBusConnection *connection, GDBusMessage *message,
                                   gboolean incoming, gpointer controls)
{
    if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return message;
    }
    static_cast<FakeControls *>(controls)->serve(connection, message);
    g_object_unref(message);
    return nullptr;
}

void FakeControls::serve(GDBusConnection *peer, GDBusMessage *call)
{
    {
        const std::lock_guard guard(lock);
        GVariant *body = g_dbus_message_get_body(call);
        g_autofree char *arguments = body ? g_variant_print(body, TRUE) : g_strdup("()");
        made.push_back(std::string(g_dbus_message_get_destination(call)) + " " +
                       g_dbus_message_get_path(call) + " " + g_dbus_message_get_interface(call) +
                       "." + g_dbus_message_get_member(call) + " " + arguments);
        made_by.insert(g_dbus_message_get_sender(call));
    }
    g_autoptr(GDBusMessage) reply = nullptr;
    if (answer == Answer::ERROR) {
        reply = g_dbus_message_new_method_error_literal(
            call, "org.freedesktop.DBus.Error.AccessDenied", "Not today");
    } else {
        reply = g_dbus_message_new_method_reply(call);
    }
    if (answer == Answer::TEXT) {
        g_dbus_message_set_body(reply, g_variant_new("(s)", "welcome"));
    }
    g_dbus_connection_send_message(peer, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
}
