#include "sonobrik_dbus_source.h"

namespace
{

sd_event *get_event(GSource *source)
{
    return reinterpret_cast<sonobrik_dbus_source *>(source)->event;
}

/*
 * Leaves GLib's timeout alone, since sd-event's timers wake its file descriptor.
 *
 * GLib does not always call check() after prepare(): not when a source of higher priority is ready,
 * and not when another thread attached or removed a source while GLib polled. The event loop is
 * then still armed and refuses to be prepared again. A wait of zero either collects the events that
 * have arrived or disarms the loop, and the new prepare sees what was queued for sending meanwhile.
 */
gboolean source_prepare(GSource *source, gint *)
{
    sd_event *event = get_event(source);
    if (sd_event_get_state(event) == SD_EVENT_ARMED && sd_event_wait(event, 0) > 0) {
        return TRUE;
    }
    return sd_event_prepare(event) > 0;
}

gboolean source_check(GSource *source)
{
    return sd_event_wait(get_event(source), 0) > 0;
}

/*
 * Returning false makes GLib remove the source, so a dispatch error disconnects it. The callback
 * tells the owner of the source.
 */
gboolean source_dispatch(GSource *source, GSourceFunc callback, gpointer user_data)
{
    if (sd_event_dispatch(get_event(source)) > 0) {
        return G_SOURCE_CONTINUE;
    }
    if (callback) {
        callback(user_data);
    }
    return G_SOURCE_REMOVE;
}

void source_finalize(GSource *source)
{
    sd_event_unref(get_event(source));
}

GSourceFuncs source_funcs = {
    source_prepare, source_check, source_dispatch, source_finalize, nullptr, nullptr,
};

} // namespace

sonobrik_dbus_source *sonobrik_dbus_source_new(sd_event *event)
{
    GSource *source = g_source_new(&source_funcs, sizeof(sonobrik_dbus_source));
    auto *dbus_source = reinterpret_cast<sonobrik_dbus_source *>(source);
    dbus_source->event = sd_event_ref(event);
    dbus_source->poll_fd.fd = sd_event_get_fd(event);
    dbus_source->poll_fd.events = G_IO_IN | G_IO_ERR | G_IO_HUP;
    g_source_add_poll(source, &dbus_source->poll_fd);
    /*
     * Otherwise GLib takes the descriptor out of its poll set during each dispatch and wakes itself
     * up twice for that, which costs one turn of the loop per message. A nested loop cannot
     * dispatch the source twice: sd-event refuses to be prepared while it dispatches.
     */
    g_source_set_can_recurse(source, TRUE);
    return dbus_source;
}
