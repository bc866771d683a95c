#include "clip_methods.h"

#include <glib.h>

#include "autoptr.h"
#include "discover_media_supported.h"
#include "sonobrik_dbus_method.h"
#include "sonobrik_group.h"
#include "sonobrik_group_metadata.h"
#include "sonobrik_osc.h"
#include "sonobrik_param_events.h"

namespace
{

/*
 * A plain prefix: a sibling folder whose name begins with it passes too, as it always has.
 */
constexpr const char *CLIP_DIRECTORY = "/etc/audioclips";

struct NewClip {
    const char *location; /* the texts are the message's */
    const char *name;
    const char *type;
};

bool read_clip(sd_bus_message *message, NewClip *clip, sonobrik_dbus_method *state)
{
    return sonobrik_dbus_get_string_arg(message, &clip->location, state) >= 0 &&
           sonobrik_dbus_get_string_arg(message, &clip->name, state) >= 0 &&
           sonobrik_dbus_get_string_arg(message, &clip->type, state) >= 0;
}

void add_clip(const NewClip &clip, sd_bus_message *reply, sonobrik_dbus_method *state)
{
    gint32 number = -1;
    if (g_strcmp0(clip.type, "audio") != 0 || !g_str_has_prefix(clip.location, CLIP_DIRECTORY) ||
        !sonobrik_group_create_group(&number, clip.location, clip.name, clip.type)) {
        return;
    }
    if (sd_bus_message_append(reply, "i", number) >= 0) {
        sonobrik_dbus_method_set_successful(state, true);
        sonobrik_param_events_register_new(number, clip.location, clip.name, clip.type);
    }
    if (!sonobrik_osc_update()) {
        g_warning("%sFailed to update onscreencontrols while adding clip", "");
    }
}

} // namespace

int sonobrik_add_clip(sd_bus_message *message, void *, sd_bus_error *ret_error)
{
    sonobrik_dbus_method state = {message, 0, "com.vesk.Sonobrik.AddClip", "NOK"};
    g_autoptr(sd_bus_message) reply = sonobrik_dbus_method_new_reply(&state);
    NewClip clip = {};
    if (reply && read_clip(message, &clip, &state)) {
        add_clip(clip, reply, &state);
    }
    sonobrik_dbus_method_send_reply(&state, reply, ret_error);
    return sonobrik_dbus_method_return_code(&state);
}

int sonobrik_get_metadata(sd_bus_message *message, void *, sd_bus_error *ret_error)
{
    sonobrik_dbus_method state = {message, 0, "com.vesk.Sonobrik.GetMetadata", "NOK"};
    g_autoptr(sd_bus_message) reply = sonobrik_dbus_method_new_reply(&state);
    if (reply) {
        g_autofree char *text = sonobrik_group_get_metadata();
        if (!text) {
            sonobrik_dbus_method_error_msg(&state, "Could not obtain metadata");
        } else if (sd_bus_message_append(reply, "s", text) >= 0) {
            sonobrik_dbus_method_set_successful(&state, true);
        }
    }
    sonobrik_dbus_method_send_reply(&state, reply, ret_error);
    return sonobrik_dbus_method_return_code(&state);
}

int sonobrik_supported_file(sd_bus_message *message, void *, sd_bus_error *ret_error)
{
    sonobrik_dbus_method state = {message, 0, "com.vesk.Sonobrik.SupportedFile", "NOK"};
    g_autoptr(sd_bus_message) reply = sonobrik_dbus_method_new_reply(&state);
    const char *path = nullptr;
    if (reply && sonobrik_dbus_get_string_arg(message, &path, &state) >= 0) {
        g_autofree char *explanation = nullptr;
        if (discover_media_is_supported(path, &explanation)) {
            if (sd_bus_message_append(reply, "s", "OK") >= 0) {
                sonobrik_dbus_method_set_successful(&state, true);
            }
        } else {
            sonobrik_dbus_method_error_msg(&state, explanation);
        }
    }
    sonobrik_dbus_method_send_reply(&state, reply, ret_error);
    return sonobrik_dbus_method_return_code(&state);
}
