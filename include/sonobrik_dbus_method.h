#pragma once

/*
 * Answering a method call: one record for each call, on its handler's stack.
 *
 * Every handler runs inside sonobrik_dbus_method_answer(), which creates the reply, lets the
 * handler read the arguments, act and append the results, and then sends the reply or the error.
 * Main thread only.
 */

#include <systemd/sd-bus.h>

#include "autoptr.h"

inline constexpr size_t SONOBRIK_DBUS_ERROR_MESSAGE_SIZE = 256;

struct sonobrik_dbus_method {
    sd_bus_message *message; /* borrowed: the call */
    int successful;          /* boolean */
    const char *error_name;  /* the method's full dotted name */
    /*
     * The error text that the caller gets if the call fails and the handler has set no other. It
     * starts as "NOK" in "com.vesk.Sonobrik" and empty in the legacy interface; callers of each
     * interface match on its text.
     */
    char error_message[SONOBRIK_DBUS_ERROR_MESSAGE_SIZE];
};

/* Returns a new reply to the call, owned by the caller, or null with a log line. */
sd_bus_message *sonobrik_dbus_method_new_reply(sonobrik_dbus_method *m);

/*
 * Reads the next argument of `msg`, a string, into `*out`; the message owns the string. On failure
 * returns a negative errno value and makes its text the error text of the call.
 */
int sonobrik_dbus_get_string_arg(sd_bus_message *msg, const char **out, sonobrik_dbus_method *m);

/*
 * Sets the error text of the call to a copy of `text`. Text that D-Bus cannot transmit is replaced
 * by U+FFFD; a text longer than 255 bytes is truncated, with a warning. Does nothing if an argument
 * is null.
 */
void sonobrik_dbus_method_error_msg(sonobrik_dbus_method *m, const char *text);

/* Marks the call as successful or failed. Does nothing for null. */
void sonobrik_dbus_method_set_successful(sonobrik_dbus_method *m, bool value);

/*
 * Sends `reply` if the call was successful; otherwise sets `ret_error`, which sd-bus sends when the
 * handler returns. Returns 1 on success. Returns 0, with a log line, if an argument is null or the
 * reply cannot be sent.
 */
int sonobrik_dbus_method_send_reply(sonobrik_dbus_method *m, sd_bus_message *reply,
                                    sd_bus_error *ret_error);

/*
 * Does the same as sonobrik_dbus_method_send_reply(), and calls `log(user_data)` between the
 * sending and the log line of a failure. If the call was not successful, `log` is not called. `log`
 * may be null.
 */
int sonobrik_dbus_method_send_reply_and_log(sonobrik_dbus_method *m, sd_bus_message *reply,
                                            sd_bus_error *ret_error, void (*log)(void *user_data),
                                            void *user_data);

/*
 * Returns the value that the handler returns to sd-bus: 1 if the call was successful; otherwise,
 * and for null, -1, which makes sd-bus send the error.
 */
int sonobrik_dbus_method_return_code(const sonobrik_dbus_method *m);

/* Appends the string "OK" to `reply`. Returns false on failure. */
bool sonobrik_dbus_method_append_ok(sd_bus_message *reply);

/*
 * Answers a method call; this is the body of every handler. Calls `work(state, reply)`, which
 * returns true after it has appended the results to `reply`. If `work` returns false or the reply
 * cannot be created, the call fails with `error_name` and the text of the state, which starts as
 * `initial_error`. To answer the call later, `work` keeps it, sets `state->message` to null and
 * returns true: nothing is sent then. Returns the handler's return value.
 *
 * If the call succeeds, calls `log()` when the reply has been sent, so that the caller does not
 * wait for the system log.
 */
template <typename Work, typename Log>
int sonobrik_dbus_method_answer(sd_bus_message *message, sd_bus_error *ret_error,
                                const char *error_name, const char *initial_error, Work work,
                                Log log)
{
    sonobrik_dbus_method state = {message, 0, error_name, ""};
    g_strlcpy(state.error_message, initial_error, sizeof state.error_message);
    g_autoptr(sd_bus_message) reply = sonobrik_dbus_method_new_reply(&state);
    if (reply && work(&state, reply)) {
        sonobrik_dbus_method_set_successful(&state, true);
    }
    if (state.message) {
        sonobrik_dbus_method_send_reply_and_log(
            &state, reply, ret_error, [](void *function) { (*static_cast<Log *>(function))(); },
            &log);
    }
    return sonobrik_dbus_method_return_code(&state);
}

/* Does the same for a method that logs nothing after the reply is sent. */
template <typename Work>
int sonobrik_dbus_method_answer(sd_bus_message *message, sd_bus_error *ret_error,
                                const char *error_name, const char *initial_error, Work work)
{
    return sonobrik_dbus_method_answer(message, ret_error, error_name, initial_error, work, [] {});
}
