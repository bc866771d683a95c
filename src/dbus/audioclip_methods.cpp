#include "audioclip_methods.h"

#include <glib.h>

#include "audio_clip.h"
#include "discover_media_supported.h"
#include "held_call.h"
#include "sonobrik_dbus_method.h"
#include "sonobrik_group.h"
#include "sonobrik_group_metadata.h"
#include "sonobrik_osc.h"
#include "sonobrik_param_events.h"

namespace
{

/* Compared as a plain prefix, so a sibling folder such as /etc/audioclips-old passes too. */
constexpr const char *CLIP_DIRECTORY = "/etc/audioclips";

struct NewClip {
    const char *location; /* the message owns the texts */
    const char *name;
    const char *type;
};

bool read_clip(sonobrik_dbus_method *state, NewClip *clip)
{
    return sonobrik_dbus_get_string_arg(state->message, &clip->location, state) >= 0 &&
           sonobrik_dbus_get_string_arg(state->message, &clip->name, state) >= 0 &&
           sonobrik_dbus_get_string_arg(state->message, &clip->type, state) >= 0;
}

bool add_clip(sonobrik_dbus_method *state, sd_bus_message *reply)
{
    NewClip clip = {};
    gint32 number = -1;
    if (!read_clip(state, &clip) || g_strcmp0(clip.type, "audio") != 0 ||
        !g_str_has_prefix(clip.location, CLIP_DIRECTORY) ||
        !sonobrik_group_create_group(&number, clip.location, clip.name, clip.type)) {
        return false;
    }
    const bool appended = sd_bus_message_append(reply, "i", number) >= 0;
    if (appended) {
        sonobrik_param_events_register_new(number, clip.location, clip.name, clip.type);
    }
    if (!sonobrik_osc_update()) {
        g_warning("%sFailed to update onscreencontrols while adding clip", "");
    }
    return appended;
}

bool get_metadata(sonobrik_dbus_method *state, sd_bus_message *reply)
{
    g_autofree char *text = sonobrik_group_get_metadata();
    if (!text) {
        sonobrik_dbus_method_error_msg(state, "Could not obtain metadata");
        return false;
    }
    return sd_bus_message_append(reply, "s", text) >= 0;
}

/*
 * The methods of the player store their options in `*logged` if a line with the options follows the
 * reply. The message owns the text.
 */
bool play_clip_asynchronous(sonobrik_dbus_method *state, sd_bus_message *reply, AudioClip *clip,
                            const char **logged)
{
    const char *options = nullptr;
    if (sonobrik_dbus_get_string_arg(state->message, &options, state) < 0) {
        return false;
    }
    g_autofree char *error = audio_clip_start(clip, options);
    if (error) {
        sonobrik_dbus_method_error_msg(state, error);
        return false;
    }
    if (!sonobrik_dbus_method_append_ok(reply)) {
        return false;
    }
    *logged = options;
    return true;
}

bool play_clip_synchronous(sonobrik_dbus_method *state, sd_bus_message *reply, AudioClip *clip,
                           const char **logged)
{
    const char *options = nullptr;
    if (sonobrik_dbus_get_string_arg(state->message, &options, state) < 0) {
        return false;
    }
    g_autofree char *error = audio_clip_start(clip, options);
    if (!error) {
        held_call_hold(g_steal_pointer(&state->message));
        return true;
    }
    sonobrik_dbus_method_error_msg(state, error);
    /*
     * While the clip of another PlayClip plays, the answer is "OK" although nothing was started. A
     * busy player is an error only if StartPlayingClip started its clip.
     */
    if (!audio_clip_is_active(clip) || !held_call_is_pending() ||
        !sonobrik_dbus_method_append_ok(reply)) {
        return false;
    }
    *logged = options;
    return true;
}

bool stop_clip(sonobrik_dbus_method *state, sd_bus_message *reply, AudioClip *clip,
               const char **logged)
{
    const char *options = nullptr;
    if (sonobrik_dbus_get_string_arg(state->message, &options, state) < 0 ||
        !audio_clip_stop(clip, options) || !sonobrik_dbus_method_append_ok(reply)) {
        return false;
    }
    *logged = options;
    return true;
}

bool supported_file(sonobrik_dbus_method *state, sd_bus_message *reply)
{
    const char *path = nullptr;
    if (sonobrik_dbus_get_string_arg(state->message, &path, state) < 0) {
        return false;
    }
    g_autofree char *explanation = nullptr;
    if (!discover_media_is_supported(path, &explanation)) {
        sonobrik_dbus_method_error_msg(state, explanation);
        return false;
    }
    return sonobrik_dbus_method_append_ok(reply);
}

template <typename Work>
int answer(sd_bus_message *message, sd_bus_error *ret_error, const char *error_name, Work work)
{
    return sonobrik_dbus_method_answer(message, ret_error, error_name, "NOK", work);
}

/* Answers a call of the player. The log names the `function` that did the work. */
template <typename Work>
int answer_player(sd_bus_message *message, sd_bus_error *ret_error, const char *error_name,
                  const char *function, void *user_data, Work work)
{
    auto *clip = static_cast<AudioClip *>(user_data);
    const char *logged = nullptr;
    return sonobrik_dbus_method_answer(
        message, ret_error, error_name, "NOK",
        [&](auto *state, auto *reply) { return work(state, reply, clip, &logged); },
        [&] {
            if (logged) {
                g_info("%s%s with options: %s", "", function, logged);
            }
        });
}

} // namespace

int sonobrik_add_clip(sd_bus_message *message, void *, sd_bus_error *ret_error)
{
    return answer(message, ret_error, "com.vesk.Sonobrik.AddClip", add_clip);
}

int sonobrik_get_metadata(sd_bus_message *message, void *, sd_bus_error *ret_error)
{
    return answer(message, ret_error, "com.vesk.Sonobrik.GetMetadata", get_metadata);
}

int sonobrik_play_clip_asynchronous(sd_bus_message *message, void *user_data,
                                    sd_bus_error *ret_error)
{
    return answer_player(message, ret_error, "com.vesk.Sonobrik.StartPlayingClip",
                         "sonobrik_play_clip_asynchronous", user_data, play_clip_asynchronous);
}

int sonobrik_play_clip_synchronous(sd_bus_message *message, void *user_data,
                                   sd_bus_error *ret_error)
{
    return answer_player(message, ret_error, "com.vesk.Sonobrik.PlayClip",
                         "sonobrik_play_clip_synchronous", user_data, play_clip_synchronous);
}

int sonobrik_stop_clip(sd_bus_message *message, void *user_data, sd_bus_error *ret_error)
{
    return answer_player(message, ret_error, "com.vesk.Sonobrik.StopPlayingClip",
                         "sonobrik_stop_clip", user_data, stop_clip);
}

int sonobrik_supported_file(sd_bus_message *message, void *, sd_bus_error *ret_error)
{
    return answer(message, ret_error, "com.vesk.Sonobrik.SupportedFile", supported_file);
}

const sd_bus_vtable audioclip_method_table[] = {
    SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("AddClip", "sss", "i", sonobrik_add_clip, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetMetadata", "", "s", sonobrik_get_metadata, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("StartPlayingClip", "s", "s", sonobrik_play_clip_asynchronous,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("PlayClip", "s", "s", sonobrik_play_clip_synchronous, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("StopPlayingClip", "s", "s", sonobrik_stop_clip, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("SupportedFile", "s", "s", sonobrik_supported_file, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};
