#include "mqtt_siren.h"

#include <algorithm>

#include "mqtt_bridge_data.h"
#include "mqtt_clock.h"

namespace
{

/* The longest siren, in milliseconds. Also the limit if the clock was set back. */
constexpr gint64 MAX_TIME = MQTT_MAX_DURATION * 1000;

int on_end(sd_event_source *, guint64, void *data)
{
    mqtt_daemon_call(static_cast<MqttBridge *>(data)->daemon, &CLIENT_SONOBRIK, "StopPlayingClip",
                     "", [](sd_bus_message *, const GError *) {});
    return 0;
}

void stop_after(MqttBridge *bridge, gint64 milliseconds)
{
    sd_event_source_disable_unref(bridge->siren_end);
    bridge->siren_end = nullptr;
    sd_event_add_time_relative(bridge->event, &bridge->siren_end, CLOCK_MONOTONIC,
                               static_cast<guint64>(milliseconds) * 1000, 0, on_end, bridge);
}

} // namespace

void mqtt_siren_set(MqttBridge *bridge, const MqttJob &job)
{
    mqtt_siren_forget(bridge);
    if (job.command.duration != CLIENT_NOT_GIVEN) {
        const gint64 milliseconds = job.command.duration * 1000;
        bridge->store.siren_end = mqtt_clock_now() + milliseconds;
        bridge->store.siren_file = job.location;
        bridge->must_save = true;
        stop_after(bridge, milliseconds);
    }
}

void mqtt_siren_resume(MqttBridge *bridge)
{
    const gint64 end = bridge->store.siren_end;
    if (end == 0 || bridge->siren_end) {
        return;
    }
    /* While no bridge was running, somebody may have started another clip. */
    const bool is_playing =
        std::ranges::any_of(bridge->state.outputs, [bridge](const MqttOutput &output) {
            return output.playing && output.file == bridge->store.siren_file;
        });
    if (is_playing) {
        stop_after(bridge, std::clamp<gint64>(end - mqtt_clock_now(), 0, MAX_TIME));
    } else {
        mqtt_siren_forget(bridge);
    }
}

void mqtt_siren_forget(MqttBridge *bridge)
{
    bridge->siren_end = sd_event_source_disable_unref(bridge->siren_end);
    bridge->must_save = bridge->must_save || bridge->store.siren_end != 0;
    bridge->store.siren_end = 0;
    bridge->store.siren_file.clear();
}
