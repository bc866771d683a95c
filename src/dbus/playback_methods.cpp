#include "playback_methods.h"

#include <cstring>
#include <glib.h>

#include "audio_clip.h"
#include "audioclip_dbus.h"
#include "autoptr.h"
#include "log_level.h"
#include "sonobrik_dbus_method.h"

namespace
{

/* Boolean: a PlayClip caller waits for its answer. */
int sync_pending;

/* That call, one reference owned; null when none is held. */
sd_bus_message *sync_message;

void release_held_call()
{
    sd_bus_message_unref(g_steal_pointer(&sync_message));
}

/*
 * Holds the call whose request plays now. One that is still held belongs to a request that ended
 * without notice; its caller is given up for the new one.
 */
void hold_call(sd_bus_message *message)
{
    if (sync_message) {
        log_error("%sNo synchronous message should exist at this point.", "");
        release_held_call();
    }
    sync_message = sd_bus_message_ref(message);
    if (sync_message) {
        sync_pending = 1;
    } else {
        g_warning("%sFailed to obtain reference to the sd_bus_message.", "");
    }
}

/* Appends the answer "OK" to the reply and, if that succeeds, marks the call successful. */
bool answer_ok(sonobrik_dbus_method *state, sd_bus_message *reply)
{
    if (sd_bus_message_append(reply, "s", "OK") < 0) {
        return false;
    }
    sonobrik_dbus_method_set_successful(state, true);
    return true;
}

} // namespace

int sonobrik_play_clip_synchronous(sd_bus_message *message, void *user_data,
                                   sd_bus_error *ret_error)
{
    auto *clip = static_cast<AudioClip *>(user_data);
    sonobrik_dbus_method state = {message, 0, "com.vesk.Sonobrik.PlayClip", "NOK"};
    g_autoptr(sd_bus_message) reply = sonobrik_dbus_method_new_reply(&state);
    const char *options = nullptr;
    if (reply && sonobrik_dbus_get_string_arg(message, &options, &state) >= 0) {
        g_autofree char *text = audio_clip_start(clip, options);
        if (!text) {
            hold_call(message);
            sonobrik_dbus_method_set_successful(&state, true);
            return sonobrik_dbus_method_return_code(&state);
        }
        sonobrik_dbus_method_error_msg(&state, text);
        /*
         * While another PlayClip's clip plays, this one is told "OK" at once and plays nothing;
         * this is meant: to such callers it matters that a clip is heard, not which.
         */
        if (audio_clip_is_active(clip) && sync_pending && answer_ok(&state, reply)) {
            g_info("%s%s with options: %s", "", "sonobrik_play_clip_synchronous", options);
        }
    }
    sonobrik_dbus_method_send_reply(&state, reply, ret_error);
    return sonobrik_dbus_method_return_code(&state);
}

int sonobrik_play_clip_asynchronous(sd_bus_message *message, void *user_data,
                                    sd_bus_error *ret_error)
{
    auto *clip = static_cast<AudioClip *>(user_data);
    sonobrik_dbus_method state = {message, 0, "com.vesk.Sonobrik.StartPlayingClip", "NOK"};
    g_autoptr(sd_bus_message) reply = sonobrik_dbus_method_new_reply(&state);
    const char *options = nullptr;
    if (reply && sonobrik_dbus_get_string_arg(message, &options, &state) >= 0) {
        g_autofree char *text = audio_clip_start(clip, options);
        if (text) {
            sonobrik_dbus_method_error_msg(&state, text);
        } else if (answer_ok(&state, reply)) {
            g_info("%s%s with options: %s", "", "sonobrik_play_clip_asynchronous", options);
        }
    }
    sonobrik_dbus_method_send_reply(&state, reply, ret_error);
    return sonobrik_dbus_method_return_code(&state);
}

int sonobrik_stop_clip(sd_bus_message *message, void *user_data, sd_bus_error *ret_error)
{
    auto *clip = static_cast<AudioClip *>(user_data);
    sonobrik_dbus_method state = {message, 0, "com.vesk.Sonobrik.StopPlayingClip", "NOK"};
    g_autoptr(sd_bus_message) reply = sonobrik_dbus_method_new_reply(&state);
    const char *options = nullptr;
    if (reply && sonobrik_dbus_get_string_arg(message, &options, &state) >= 0 &&
        audio_clip_stop(clip, options) && answer_ok(&state, reply)) {
        g_info("%s%s with options: %s", "", "sonobrik_stop_clip", options);
    }
    sonobrik_dbus_method_send_reply(&state, reply, ret_error);
    return sonobrik_dbus_method_return_code(&state);
}

void playback_methods_setup()
{
    sync_pending = 0;
    sync_message = nullptr;
}

void playback_methods_teardown()
{
    release_held_call();
}

void audioclip_dbus_notify_request_finished()
{
    if (!sync_pending) {
        return;
    }
    if (sync_message) {
        const int r = sd_bus_reply_method_return(sync_message, "s", "OK");
        if (r < 0) {
            g_warning("%sCould not send the D-Bus response: %s", "", strerror(-r));
        }
    } else {
        log_error("%s%s was called unexpectedly", "", "audioclip_dbus_synchronous_sd_bus_reply");
    }
    release_held_call();
    sync_pending = 0;
}
