#include "sonobrik_dbus_method.h"

#include <cstring>
#include <glib.h>

#include "bus_text.h"

namespace
{

/* Removes a partial UTF-8 character from the end of a truncated string. */
void remove_partial_character(char *text)
{
    const char *end = nullptr;
    if (!g_utf8_validate(text, -1, &end)) {
        text[end - text] = '\0';
    }
}

} // namespace

sd_bus_message *sonobrik_dbus_method_new_reply(sonobrik_dbus_method *m)
{
    if (!m) {
        g_warning("%s%s has been called with invalid arguments", "",
                  "sonobrik_dbus_method_new_reply");
        return nullptr;
    }
    sd_bus_message *reply = nullptr;
    const int r = sd_bus_message_new_method_return(m->message, &reply);
    if (r < 0) {
        g_info("%s%s failed to create dbus method reply message due to '%s'", "",
               "sonobrik_dbus_method_new_reply", strerror(-r));
        return nullptr;
    }
    return reply;
}

int sonobrik_dbus_get_string_arg(sd_bus_message *msg, const char **out, sonobrik_dbus_method *m)
{
    const int r = sd_bus_message_read(msg, "s", out);
    if (r < 0) {
        g_autofree char *text = g_strdup_printf("Failed to parse parameter(s): %s.", strerror(-r));
        sonobrik_dbus_method_error_msg(m, text);
    }
    return r;
}

void sonobrik_dbus_method_error_msg(sonobrik_dbus_method *m, const char *text)
{
    if (!m || !text) {
        return;
    }
    /* sd-bus refuses to send invalid text, and the caller would never get an answer. */
    g_autofree char *valid_text = bus_text_make_valid(text);
    if (g_strlcpy(m->error_message, valid_text, sizeof m->error_message) >=
        sizeof m->error_message) {
        remove_partial_character(m->error_message);
        g_warning("%s%s the error message '%s' has been truncated.", "",
                  "sonobrik_dbus_method_error_msg", text);
    }
}

void sonobrik_dbus_method_set_successful(sonobrik_dbus_method *m, bool value)
{
    if (m) {
        m->successful = value;
    }
}

int sonobrik_dbus_method_send_reply(sonobrik_dbus_method *m, sd_bus_message *reply,
                                    sd_bus_error *ret_error)
{
    return sonobrik_dbus_method_send_reply_and_log(m, reply, ret_error, nullptr, nullptr);
}

int sonobrik_dbus_method_send_reply_and_log(sonobrik_dbus_method *m, sd_bus_message *reply,
                                            sd_bus_error *ret_error, void (*log)(void *user_data),
                                            void *user_data)
{
    if (!m || !reply || !ret_error) {
        g_warning("%s%s has been called with invalid arguments", "",
                  "sonobrik_dbus_method_send_reply");
        return 0;
    }
    if (!m->successful) {
        sd_bus_error_set(ret_error, m->error_name, m->error_message);
        return 1;
    }
    const int r = sd_bus_send(sd_bus_message_get_bus(m->message), reply, nullptr);
    if (log) {
        log(user_data);
    }
    if (r < 0) {
        g_info("%s%s failed to send positive reply message due to %s", "",
               "sonobrik_dbus_method_send_reply", strerror(-r));
        sd_bus_error_set(ret_error, m->error_name, "Failed to send a positive dbus response");
        return 0;
    }
    return 1;
}

int sonobrik_dbus_method_return_code(const sonobrik_dbus_method *m)
{
    return m && m->successful ? 1 : -1;
}

bool sonobrik_dbus_method_append_ok(sd_bus_message *reply)
{
    return sd_bus_message_append(reply, "s", "OK") >= 0;
}
