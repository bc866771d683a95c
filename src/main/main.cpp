#include "service_frame.h"

#include <cstdlib>
#include <glib-unix.h>
#include <gst/gst.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>

#include "audio_clip.h"
#include "audioclip_dbus.h"
#include "clip_warm_up.h"
#include "log_level.h"
#include "memory_trim.h"
#include "platform/log_redirect.h"
#include "sonobrik_events.h"
#include "sonobrik_osc.h"
#include "sonobrik_parameters.h"

namespace
{

/* In µs. A list of thousands of files would otherwise send a ping for each. */
constexpr gint64 MIN_PING_INTERVAL = G_USEC_PER_SEC / 10;

GMainLoop *main_loop;

/* Stays EXIT_FAILURE until a quit request sets it, so a failed start-up exits with 1. */
gint32 exit_status = EXIT_FAILURE;

AudioClip *audio_clip;

guint watchdog_source_id;

gint64 last_ping; /* in µs of g_get_monotonic_time() */

/* Reserved for a second timer, which the teardown removes too; nothing sets it. */
guint spare_source_id;

/* Each signal source is removed after its first delivery. */
gboolean quit_signal_handler(gpointer)
{
    sonobrik_quit_main_loop(EXIT_SUCCESS);
    return G_SOURCE_REMOVE;
}

void ping_watchdog()
{
    last_ping = g_get_monotonic_time();
    sd_notify(0, "WATCHDOG=1");
}

gboolean watchdog_timeout_cb(gpointer)
{
    ping_watchdog();
    return G_SOURCE_CONTINUE;
}

/* Pings systemd's watchdog at half its interval, if one is configured. */
void watchdog_setup()
{
    uint64_t usec = 0;
    const int r = sd_watchdog_enabled(0, &usec);
    if (r < 0) {
        g_warning("%sFailed checking if watchdog is enabled, error code %d.", "", r);
        g_warning("%sFailed to setup watchdog.", "");
        return;
    }
    if (r == 0) {
        return;
    }

    /* Below 2 s the interval rounds to 0 and the loop spins; the unit's period is well above. */
    const guint interval = static_cast<guint32>(usec / G_USEC_PER_SEC) >> 1;
    watchdog_source_id = g_timeout_add_seconds_full(G_PRIORITY_HIGH, interval, watchdog_timeout_cb,
                                                    nullptr, nullptr);
}

/* Sets up the subsystems, each after those that it uses. Returns false if a required step fails. */
bool start(int *argc, char ***argv)
{
    memory_trim_share_pool();
    log_redirect_to_syslog(LOG_IDENTITY, LOG_DAEMON);

    main_loop = g_main_loop_new(nullptr, FALSE);
    if (!main_loop) {
        return false;
    }

    sonobrik_events_setup();

    g_unix_signal_add(SIGINT, quit_signal_handler, nullptr);
    g_unix_signal_add(SIGTERM, quit_signal_handler, nullptr);

    gst_init(argc, argv);

    audio_clip = audio_clip_ref();
    if (!audio_clip) {
        g_critical("%sFailed to initialize the audio clip struct.", "");
        return false;
    }

    if (!sonobrik_osc_setup()) {
        g_warning("%sFailed to add features to onscreencontrols.", "");
    }

    if (!sonobrik_parameters_setup()) {
        g_critical("%sFailed to initialize sonobrik parameters.", "");
        return false;
    }

    if (audioclip_dbus_setup(audio_clip) < 0) {
        g_critical("%sFailed to setup the audioclip dbus service.", "");
        return false;
    }

    watchdog_setup();
    clip_warm_up_start();
    return true;
}

/* Tears down what start() has set up, even if it failed half-way. */
void stop()
{
    clip_warm_up_stop();
    AudioClip *clip = g_steal_pointer(&audio_clip);
    if (clip) {
        audio_clip_unref(clip);
    }
    audioclip_dbus_teardown();
    sonobrik_parameters_teardown();
    sonobrik_events_teardown();
    sonobrik_osc_teardown();
    g_clear_handle_id(&spare_source_id, g_source_remove);
    g_clear_handle_id(&watchdog_source_id, g_source_remove);
    g_clear_pointer(&main_loop, g_main_loop_unref);
}

} // namespace

void sonobrik_quit_main_loop(gint32 code)
{
    if (main_loop && g_main_loop_is_running(main_loop)) {
        g_main_loop_quit(main_loop);
    }
    exit_status = code;
}

void sonobrik_feed_watchdog()
{
    if (watchdog_source_id != 0 && g_get_monotonic_time() - last_ping >= MIN_PING_INTERVAL) {
        ping_watchdog();
    }
}

int main(int argc, char **argv)
{
    if (start(&argc, &argv)) {
        g_main_loop_run(main_loop);
    }
    stop();
    exit(exit_status);
}
