#include "mqtt_catch_up.h"

#include <algorithm>
#include <utility>

#include "autoptr.h"
#include "mqtt_bridge_data.h"
#include "mqtt_clock.h"
#include "mqtt_topics.h"

namespace
{

/* After this time without a command, in milliseconds, the broker has sent all messages that it kept
 * for the node. It counts if the node's own "online" does not arrive: the broker may not let the
 * node read it, or its queue for the node may have been full. */
constexpr gint64 CATCH_UP_TIME = 30'000;

/* The shortest pause that counts, in milliseconds. While connected, the loop runs at least once a
 * second, or a little later on a busy machine. */
constexpr gint64 MIN_PAUSE = 3000;

bool is_active_at(const MqttBridge *bridge, gint64 time)
{
    return bridge->is_catching_up && time - bridge->last_kept < CATCH_UP_TIME;
}

void publish_online(MqttBridge *bridge)
{
    mqtt_client_publish(bridge->client, mqtt_topics_own(*bridge->conf, "availability"), "online",
                        true, &bridge->mark);
}

void begin(MqttBridge *bridge, bool has_kept)
{
    bridge->is_catching_up = has_kept;
    bridge->last_kept = mqtt_clock_boot();
    g_autofree char *mark = g_uuid_string_random();
    bridge->mark = mark;
    publish_online(bridge);
}

} // namespace

void mqtt_catch_up_on_connected(MqttBridge *bridge, bool has_session)
{
    bridge->away = bridge->alive == MQTT_UNKNOWN ? MQTT_UNKNOWN : mqtt_clock_boot() - bridge->alive;
    bridge->held_up = 0;
    begin(bridge, has_session);
}

void mqtt_catch_up_note_turn(MqttBridge *bridge)
{
    const gint64 now = mqtt_clock_boot();
    const gint64 last = std::exchange(bridge->last_turn, now);
    const gint64 pause = last > 0 ? now - last : 0;
    if (pause <= std::max(bridge->conf->grace, MIN_PAUSE) ||
        !mqtt_client_is_connected(bridge->client)) {
        return;
    }
    const bool was_active = is_active_at(bridge, last); /* the pause itself does not count */
    bridge->held_up = pause + (was_active ? bridge->held_up : 0);
    if (!was_active) {
        bridge->away = pause;
    } else if (bridge->away != MQTT_UNKNOWN) {
        bridge->away += pause;
    }
    begin(bridge, true);
}

void mqtt_catch_up_note_command(MqttBridge *bridge)
{
    if (mqtt_catch_up_is_active(bridge)) {
        bridge->last_kept = mqtt_clock_boot();
    }
}

void mqtt_catch_up_on_availability(MqttBridge *bridge, const MqttMessage &message)
{
    if (message.correlation == bridge->mark) {
        bridge->is_catching_up = false;
    } else if (message.payload == "offline" && !mqtt_catch_up_is_active(bridge)) {
        /* The will of another client: a second bridge with this node's name, or this node before
         * its client identifier was changed. */
        publish_online(bridge);
    }
}

bool mqtt_catch_up_is_active(const MqttBridge *bridge)
{
    return is_active_at(bridge, mqtt_clock_boot());
}
