#include "sonobrik_dbus_source.h"

namespace
{

sd_event *get_event(GSource *source)
{
    return reinterpret_cast<sonobrik_dbus_source *>(source)->event;
}

/*
 * The time-out is left alone: sd-event's timers show on its descriptor.
 *
 * A loop that was prepared is not always checked: GLib skips that when a source of higher priority
 * is ready, and when another thread attached or removed a source while it polled. The event loop is
 * then still armed and would refuse to be prepared again. Waiting for nothing either takes what has
 * arrived or disarms it; preparing anew then sees what was queued for sending in the meantime.
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

/* What cannot be dispatched ends the source, as GLib understands a false result. */
gboolean source_dispatch(GSource *source, GSourceFunc, gpointer)
{
    return sd_event_dispatch(get_event(source)) > 0;
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
    return dbus_source;
}
