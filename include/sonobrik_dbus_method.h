#pragma once

/*
 * How a method call is answered: one record for each call, on its handler's stack.
 *
 * A handler fills the record, creates the reply, reads the arguments, acts, appends the results,
 * sends the reply and returns sonobrik_dbus_method_return_code(). A call that is not marked
 * successful by then fails with the method's error name and the record's text. Everything runs on
 * the main thread.
 */

#include <systemd/sd-bus.h>

inline constexpr size_t SONOBRIK_DBUS_ERROR_MESSAGE_SIZE = 256;

struct sonobrik_dbus_method {
    sd_bus_message *message; /* borrowed: the call */
    int successful;          /* boolean */
    const char *error_name;  /* the method's full dotted name */
    /*
     * What the caller reads when the call fails and no text was set: "NOK" in the methods of
     * "com.vesk.Sonobrik", nothing in those of the legacy interface. The difference is meant.
     */
    char error_message[SONOBRIK_DBUS_ERROR_MESSAGE_SIZE];
};

/* Returns a new reply to the call, owned by the caller; null with a log line. */
sd_bus_message *sonobrik_dbus_method_new_reply(sonobrik_dbus_method *m);

/*
 * Reads the next argument of `msg`, a string, into `*out`, which the message owns. Returns a
 * negative errno value on failure, which then is the text of the error.
 */
int sonobrik_dbus_get_string_arg(sd_bus_message *msg, const char **out, sonobrik_dbus_method *m);

/*
 * Makes `text` the text of the error; what exceeds 255 bytes is cut off, with a warning. A null
 * argument does nothing.
 */
void sonobrik_dbus_method_error_msg(sonobrik_dbus_method *m, const char *text);

/* Says whether the call has done its work. Null does nothing. */
void sonobrik_dbus_method_set_successful(sonobrik_dbus_method *m, bool value);

/*
 * Sends `reply` if the call was successful, else sets `ret_error`, with which sd-bus answers when
 * the handler returns. Returns 1 when the answer is on its way, 0 when it could not be sent or an
 * argument is null; both are logged.
 */
int sonobrik_dbus_method_send_reply(sonobrik_dbus_method *m, sd_bus_message *reply,
                                    sd_bus_error *ret_error);

/*
 * Returns what the handler returns to sd-bus: 1 if the call was successful, else, and for null, -1,
 * upon which sd-bus sends the error.
 */
int sonobrik_dbus_method_return_code(const sonobrik_dbus_method *m);
