#include "held_call.h"

#include <cstring>
#include <glib.h>

#include "log_level.h"

namespace
{

/* Used as a boolean: 1 while a PlayClip caller waits for its answer. */
int sync_pending;

/* The held call, one reference owned; null if none is held. */
sd_bus_message *sync_message;

void release_message()
{
    sd_bus_message_unref(g_steal_pointer(&sync_message));
}

/* Sends "OK" to the held call, or logs why it cannot. */
void send_ok()
{
    if (!sync_message) {
        log_error("%s%s was called unexpectedly", "", "audioclip_dbus_synchronous_sd_bus_reply");
        return;
    }
    const int r = sd_bus_reply_method_return(sync_message, "s", "OK");
    if (r < 0) {
        g_warning("%sCould not send the D-Bus response: %s", "", strerror(-r));
    }
}

} // namespace

void held_call_setup()
{
    sync_pending = 0;
    sync_message = nullptr;
}

void held_call_teardown()
{
    release_message();
}

void held_call_hold(sd_bus_message *message)
{
    /*
     * A call that is still held belongs to a request that ended without notifying. Only the newest
     * caller is kept; the older one is dropped without an answer.
     */
    if (sync_message) {
        log_error("%sNo synchronous message should exist at this point.", "");
        release_message();
    }
    sync_message = sd_bus_message_ref(message);
    if (sync_message) {
        sync_pending = 1;
    } else {
        g_warning("%sFailed to obtain reference to the sd_bus_message.", "");
    }
}

bool held_call_is_pending()
{
    return sync_pending != 0;
}

void held_call_finish()
{
    if (sync_pending) {
        send_ok();
        release_message();
        sync_pending = 0;
    }
}
