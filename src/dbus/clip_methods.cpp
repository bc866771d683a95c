#include "clip_methods.h"

#include "autoptr.h"
#include "discover_media_supported.h"
#include "sonobrik_dbus_method.h"

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
