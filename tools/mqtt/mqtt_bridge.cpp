#include "mqtt_bridge.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "autoptr.h"
#include "mqtt_bridge_data.h"
#include "mqtt_catch_up.h"
#include "mqtt_clock.h"
#include "mqtt_discovery.h"
#include "mqtt_jobs.h"
#include "mqtt_outbox.h"
#include "mqtt_save.h"
#include "mqtt_siren.h"
#include "mqtt_topics.h"

namespace
{

/* How long to wait for further changes before the clips are listed, in microseconds. */
constexpr guint64 REFRESH_DELAY = 100'000;

/* How long to wait for the other event, in microseconds: when a clip begins, one event tells that
 * the output is playing, and another one which file. */
constexpr guint64 SETTLE_TIME = 50'000;

/* How often the time of the last packet is written, in milliseconds. */
constexpr gint64 ALIVE_INTERVAL = 1000;

/* Retained messages */

void publish_state(MqttBridge *bridge, const char *leaf, std::string *published,
                   const std::string &payload)
{
    if (*published != payload &&
        mqtt_client_publish(bridge->client, mqtt_topics_own(*bridge->conf, leaf), payload, true,
                            nullptr) != 0) {
        *published = payload;
    }
}

void publish_discovery(MqttBridge *bridge)
{
    const MqttConf &conf = *bridge->conf;
    const std::string payload = conf.discovery ? mqtt_discovery_write(conf, bridge->state) : "";
    const bool is_due = conf.discovery
                            ? bridge->state.knows_clips && bridge->published.discovery != payload
                            : bridge->store.announced;
    if (!is_due) {
        return;
    }
    if (mqtt_client_publish(bridge->client, mqtt_discovery_topic(conf), payload, true, nullptr) !=
        0) {
        bridge->published.discovery = payload;
        bridge->must_save = bridge->must_save || bridge->store.announced != conf.discovery;
        bridge->store.announced = conf.discovery;
    }
}

/* Publishes what is known and has changed. Until the daemon has answered, the broker keeps the
 * messages of the last time, which tell more than empty ones. */
void publish_all(MqttBridge *bridge)
{
    if (!mqtt_client_is_connected(bridge->client) || bridge->is_settling) {
        return;
    }
    const MqttConf &conf = *bridge->conf;
    MqttPublished *published = &bridge->published;
    if (bridge->state.knows_outputs) {
        publish_state(bridge, "state", &published->state, mqtt_state_write(bridge->state));
    }
    if (bridge->state.knows_clips) {
        publish_state(bridge, "clips", &published->clips, mqtt_state_write_clips(bridge->state));
    }
    if (conf.discovery && bridge->state.knows_outputs) {
        publish_state(bridge, "siren/state", &published->siren,
                      mqtt_discovery_write_siren(bridge->state));
    }
    publish_discovery(bridge);
}

/* Publishes "info" even if nothing has changed in it. publish_all() leaves it out, because it
 * contains the estimate of the clock's error and would differ each time. */
void publish_info(MqttBridge *bridge)
{
    bridge->published.info.clear();
    publish_state(bridge, "info", &bridge->published.info,
                  mqtt_state_write_info(bridge->state, *bridge->conf, mqtt_client_library(),
                                        mqtt_clock_read()));
}

/* The broker */

void write_alive(MqttBridge *bridge)
{
    if (bridge->alive_fd >= 0 && bridge->alive != bridge->alive_written) {
        const std::string text = std::to_string(bridge->alive) + "\n";
        if (pwrite(bridge->alive_fd, text.data(), text.size(), 0) > 0) {
            bridge->alive_written = bridge->alive;
        }
    }
}

/* Opens and reads the file with the time of the last packet. */
void open_alive(MqttBridge *bridge, const std::string &path)
{
    constexpr size_t MAX_TEXT = 32;
    bridge->alive = bridge->alive_written = MQTT_UNKNOWN;
    bridge->alive_fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    char text[MAX_TEXT] = {};
    if (bridge->alive_fd < 0) {
        mqtt_log(LOG_WARNING, "cannot open %s: %s", path.c_str(), g_strerror(errno));
    } else if (pread(bridge->alive_fd, text, sizeof(text) - 1, 0) > 0) {
        const gint64 time = g_ascii_strtoll(text, nullptr, 10);
        /* Times count from the boot, so a time from an earlier boot can be in the future. */
        bridge->alive = time > 0 && time <= mqtt_clock_boot() ? time : MQTT_UNKNOWN;
    }
}

void on_heard(MqttBridge *bridge)
{
    mqtt_catch_up_note_turn(bridge);
    /* While the broker sends what it has kept, the old time stays: if the connection breaks, the
     * rest of those messages is as old as before. */
    if (!mqtt_catch_up_is_active(bridge)) {
        bridge->alive = mqtt_clock_boot();
    }
    if (bridge->alive - bridge->alive_written >= ALIVE_INTERVAL) {
        write_alive(bridge);
    }
    mqtt_outbox_send_kept(bridge);
}

void on_connected(MqttBridge *bridge, bool has_session)
{
    for (const std::string &topic : mqtt_topics_list(*bridge->conf)) {
        mqtt_client_subscribe(bridge->client, topic);
    }
    mqtt_catch_up_on_connected(bridge, has_session);
    bridge->published = {};
    publish_all(bridge);
    publish_info(bridge);
    mqtt_outbox_send_kept(bridge);
}

void on_received(MqttBridge *bridge, const MqttMessage &message)
{
    mqtt_catch_up_note_turn(bridge);
    std::string group;
    switch (mqtt_topics_find(*bridge->conf, message.topic, &group)) {
    case MQTT_TOPIC_OTHER:
        /* The session has a subscription of an earlier configuration. */
        mqtt_client_unsubscribe(bridge->client, message.topic);
        break;
    case MQTT_TOPIC_AVAILABILITY:
        mqtt_catch_up_on_availability(bridge, message);
        break;
    case MQTT_TOPIC_HOME_ASSISTANT:
        if (message.payload == "online") {
            bridge->published.discovery.clear();
            publish_discovery(bridge);
        }
        break;
    default:
        mqtt_jobs_receive(bridge, message);
    }
}

/* The daemon */

/* Notes that the daemon runs because it replied. The bus may already have told that it is gone: it
 * gives up its names one after the other, and replies on the last one until then. */
void note_reply(MqttBridge *bridge)
{
    if (!bridge->knows_owner) {
        bridge->state.is_running = true;
    }
}

void list_clips(MqttBridge *bridge)
{
    if (bridge->is_listing) {
        bridge->must_list_again = true;
        return;
    }
    bridge->is_listing = true;
    mqtt_daemon_list(bridge->daemon, true, [bridge](GPtrArray *clips, const GError *) {
        bridge->is_listing = false;
        if (clips) {
            note_reply(bridge);
            mqtt_state_set_clips(&bridge->state, clips);
            publish_all(bridge);
        }
        if (std::exchange(bridge->must_list_again, false)) {
            list_clips(bridge);
        }
    });
}

int on_refresh(sd_event_source *, guint64, void *data)
{
    list_clips(static_cast<MqttBridge *>(data));
    return 0;
}

void list_clips_soon(MqttBridge *bridge)
{
    sd_event_source_set_time_relative(bridge->refresh, REFRESH_DELAY);
    sd_event_source_set_enabled(bridge->refresh, SD_EVENT_ONESHOT);
}

void list_outputs(MqttBridge *bridge)
{
    mqtt_daemon_list_outputs(bridge->daemon, [bridge](GPtrArray *outputs) {
        /* Without a daemon, or on a platform without such events, there are none. */
        bridge->state.knows_outputs = true;
        if (outputs) {
            note_reply(bridge);
            mqtt_state_set_outputs(&bridge->state, outputs, mqtt_clock_now());
            mqtt_siren_resume(bridge);
            publish_info(bridge);
        }
        publish_all(bridge);
    });
}

void on_owner(MqttBridge *bridge, bool is_running)
{
    bridge->knows_owner = true;
    bridge->state.is_running = is_running;
    if (is_running) {
        list_outputs(bridge);
        list_clips_soon(bridge);
        return;
    }
    mqtt_siren_forget(bridge);
    for (MqttOutput &output : bridge->state.outputs) {
        output.since = output.playing ? mqtt_clock_now() : output.since;
        output.playing = false;
    }
    publish_all(bridge);
}

void on_event(MqttBridge *bridge, const ClientEvent &event)
{
    mqtt_state_apply(&bridge->state, event, mqtt_clock_now());
    if (event.is_state && !event.playing) {
        mqtt_siren_forget(bridge);
    }
    if (!bridge->is_settling) {
        bridge->is_settling = true;
        sd_event_source_set_time_relative(bridge->settled, SETTLE_TIME);
        sd_event_source_set_enabled(bridge->settled, SD_EVENT_ONESHOT);
    }
}

int on_settled(sd_event_source *, guint64, void *data)
{
    auto *bridge = static_cast<MqttBridge *>(data);
    bridge->is_settling = false;
    publish_all(bridge);
    return 0;
}

/* Set-up */

/* Runs after each dispatch. Saves the store first, because mqtt_client_flush() acknowledges the
 * commands in it. */
int on_post(sd_event_source *, void *data)
{
    auto *bridge = static_cast<MqttBridge *>(data);
    mqtt_catch_up_note_turn(bridge);
    mqtt_save_changes(bridge);
    mqtt_client_flush(bridge->client);
    return 0;
}

int add_sources(MqttBridge *bridge)
{
    constexpr guint64 EXACT = 1; /* microseconds */
    int r = sd_event_add_post(bridge->event, &bridge->post, on_post, bridge);
    if (r >= 0) {
        r = sd_event_add_time(bridge->event, &bridge->alarm, CLOCK_REALTIME, 0, EXACT,
                              mqtt_jobs_on_alarm, bridge);
    }
    if (r >= 0) {
        r = sd_event_source_set_enabled(bridge->alarm, SD_EVENT_OFF);
    }
    if (r >= 0) {
        r = sd_event_add_time_relative(bridge->event, &bridge->retry, CLOCK_MONOTONIC, 0, 0,
                                       mqtt_jobs_on_retry, bridge);
    }
    if (r >= 0) {
        r = sd_event_add_time_relative(bridge->event, &bridge->refresh, CLOCK_MONOTONIC, 0, 0,
                                       on_refresh, bridge);
    }
    if (r >= 0) {
        r = sd_event_add_time_relative(bridge->event, &bridge->settled, CLOCK_MONOTONIC, 0, 0,
                                       on_settled, bridge);
    }
    if (r >= 0) {
        r = sd_event_source_set_enabled(bridge->settled, SD_EVENT_OFF);
    }
    return r;
}

bool open_daemon(MqttBridge *bridge, std::string *why)
{
    const MqttNews news = {
        .owner = [bridge](bool is_running) { on_owner(bridge, is_running); },
        .event = [bridge](const ClientEvent &event) { on_event(bridge, event); },
        .clips = [bridge] { list_clips_soon(bridge); },
        .lost =
            [bridge] {
                mqtt_log(LOG_ERR, "lost the connection to the system bus");
                sd_event_exit(bridge->event, EXIT_FAILURE);
            },
    };
    g_autoptr(GError) error = nullptr;
    bridge->daemon = mqtt_daemon_new(bridge->event, news, &error);
    if (!bridge->daemon) {
        *why = std::string("cannot connect to the system bus: ") + error->message;
        return false;
    }
    list_outputs(bridge);
    return true;
}

bool open_client(MqttBridge *bridge, const std::string &password, std::string *why)
{
    const MqttHandlers handlers = {
        .connected = [bridge](bool has_session) { on_connected(bridge, has_session); },
        .heard = [bridge] { on_heard(bridge); },
        .received = [bridge](const MqttMessage &message) { on_received(bridge, message); },
        .published =
            [bridge](int message, bool is_refused) {
                mqtt_outbox_on_published(bridge, message, is_refused);
            },
        .ended = [bridge](bool was_stable) { mqtt_outbox_on_ended(bridge, was_stable); },
    };
    bridge->client = mqtt_client_new(bridge->event, bridge->conf, password, handlers, why);
    return bridge->client != nullptr;
}

} // namespace

MqttBridge *mqtt_bridge_new(sd_event *event, const MqttConf *conf, const MqttFolders &folders,
                            const std::string &password, std::string *why)
{
    auto *bridge = new MqttBridge{};
    bridge->event = sd_event_ref(event);
    bridge->conf = conf;
    bridge->lead.configured = conf->lead * 1000;
    bridge->store_path = folders.state + "/commands.json";
    bridge->spare_path = folders.runtime + "/commands.json";
    open_alive(bridge, folders.runtime + "/alive");
    mqtt_save_load(bridge);
    const int r = add_sources(bridge);
    if (r < 0) {
        *why = g_strerror(-r);
    }
    if (r < 0 || !open_daemon(bridge, why) || !open_client(bridge, password, why)) {
        mqtt_bridge_free(bridge);
        return nullptr;
    }
    mqtt_jobs_resume(bridge);
    return bridge;
}

bool mqtt_bridge_free(MqttBridge *bridge)
{
    if (!bridge) {
        return true;
    }
    if (bridge->client) {
        bridge->must_save = true;
        mqtt_save_changes(bridge);
        write_alive(bridge);
        mqtt_client_leave(bridge->client);
    }
    if (!mqtt_client_free(bridge->client)) {
        return false;
    }
    mqtt_daemon_free(bridge->daemon);
    sd_event_source_disable_unref(bridge->post);
    sd_event_source_disable_unref(bridge->alarm);
    sd_event_source_disable_unref(bridge->retry);
    sd_event_source_disable_unref(bridge->refresh);
    sd_event_source_disable_unref(bridge->settled);
    sd_event_source_disable_unref(bridge->siren_end);
    if (bridge->alive_fd >= 0) {
        close(bridge->alive_fd);
    }
    sd_event_unref(bridge->event);
    delete bridge;
    return true;
}
