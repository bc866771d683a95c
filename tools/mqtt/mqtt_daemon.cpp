#include "mqtt_daemon.h"

#include <cerrno>
#include <cstdint>
#include <memory>
#include <sys/inotify.h>

#include "autoptr.h"
#include "client_clips.h"

namespace
{

constexpr ClientInterface EVENTS = {
    .service = "com.vesk.Events1.SonoBrikEvents",
    .object = "/com/vesk/Events1/SonoBrikEvents",
    .interface = "org.freedesktop.DBus.ObjectManager",
};

constexpr const char *CHANGES_OBJECT = "/com/vesk/ConfigurationChanges1/SonoBrik";
constexpr const char *CHANGES_INTERFACE = "com.vesk.ConfigurationChanges1";

/* The daemon announces new clips only. Its record files show the other changes too. */
constexpr const char *RECORDS = "/etc/dynamic/sonobrik/clip_data";

int on_reply(sd_bus_message *answer, void *data, sd_bus_error *)
{
    const auto *done = static_cast<const MqttReply *>(data);
    const sd_bus_error *bus_error = sd_bus_message_get_error(answer);
    g_autoptr(GError) error = nullptr;
    if (bus_error) {
        client_bus_set_error(&error, -sd_bus_message_get_errno(answer), bus_error);
    }
    (*done)(bus_error ? nullptr : answer, error);
    return 0;
}

void free_reply(void *data)
{
    delete static_cast<MqttReply *>(data);
}

void send_call(MqttDaemon *daemon, sd_bus_message *call, GError *failure, const MqttReply &done)
{
    g_autoptr(sd_bus_message) owned = call;
    g_autoptr(GError) error = failure;
    if (owned) {
        auto *reply = new MqttReply(done);
        g_autoptr(sd_bus_slot) slot = nullptr;
        const int r = sd_bus_call_async(daemon->bus, &slot, owned, on_reply, reply, UINT64_MAX);
        if (r >= 0) {
            sd_bus_slot_set_destroy_callback(slot, free_reply);
            sd_bus_slot_set_floating(slot, 1);
            return;
        }
        delete reply;
        client_bus_set_error(&error, r, nullptr);
    }
    done(nullptr, error);
}

int on_event(sd_bus_message *signal, void *data, sd_bus_error *)
{
    ClientEvent event = {};
    if (client_event_read(signal, &event) > 0) {
        static_cast<MqttDaemon *>(data)->news.event(event);
    }
    return 0;
}

int on_change(sd_bus_message *, void *data, sd_bus_error *)
{
    static_cast<MqttDaemon *>(data)->news.clips();
    return 0;
}

int on_records(sd_event_source *, const inotify_event *, void *data)
{
    static_cast<MqttDaemon *>(data)->news.clips();
    return 0;
}

int on_owner(sd_bus_message *signal, void *data, sd_bus_error *)
{
    const char *owner = nullptr;
    if (sd_bus_message_read(signal, "sss", nullptr, nullptr, &owner) >= 0) {
        static_cast<MqttDaemon *>(data)->news.owner(*owner != '\0');
    }
    return 0;
}

int on_lost(sd_bus_message *, void *data, sd_bus_error *)
{
    static_cast<MqttDaemon *>(data)->news.lost();
    return 0;
}

int subscribe(MqttDaemon *daemon)
{
    int r = sd_bus_match_signal(daemon->bus, nullptr, CLIENT_EVENTS_SERVICE, nullptr,
                                CLIENT_EVENT_INTERFACE, "Sent", on_event, daemon);
    if (r >= 0) {
        r = sd_bus_match_signal(daemon->bus, nullptr, CLIENT_EVENTS_SERVICE, CHANGES_OBJECT,
                                CHANGES_INTERFACE, "EntryChanged", on_change, daemon);
    }
    if (r >= 0) {
        r = client_bus_match_owner(daemon->bus, CLIENT_SONOBRIK.service, on_owner, daemon);
    }
    if (r >= 0) {
        r = sd_bus_match_signal(daemon->bus, nullptr, "org.freedesktop.DBus.Local", nullptr,
                                "org.freedesktop.DBus.Local", "Disconnected", on_lost, daemon);
    }
    return r;
}

} // namespace

MqttDaemon *mqtt_daemon_new(sd_event *event, const MqttNews &news, GError **error)
{
    auto *daemon = new MqttDaemon{.bus = client_bus_open(error), .watch = nullptr, .news = news};
    if (!daemon->bus) {
        mqtt_daemon_free(daemon);
        return nullptr;
    }
    int r = sd_bus_attach_event(daemon->bus, event, SD_EVENT_PRIORITY_NORMAL);
    if (r >= 0) {
        r = subscribe(daemon);
    }
    if (r < 0) {
        client_bus_set_error(error, r, nullptr);
        mqtt_daemon_free(daemon);
        return nullptr;
    }
    /* Another platform or version may have no such folder. Then only added clips are noticed. */
    sd_event_add_inotify(event, &daemon->watch, RECORDS,
                         IN_MOVED_TO | IN_DELETE | IN_CLOSE_WRITE | IN_ONLYDIR, on_records, daemon);
    return daemon;
}

void mqtt_daemon_free(MqttDaemon *daemon)
{
    if (!daemon) {
        return;
    }
    sd_event_source_disable_unref(daemon->watch);
    sd_bus_flush_close_unref(daemon->bus);
    delete daemon;
}

void mqtt_daemon_call(MqttDaemon *daemon, const ClientInterface *interface, const char *member,
                      const char *text, const MqttReply &done)
{
    GError *error = nullptr;
    sd_bus_message *call =
        text ? client_bus_new_call(daemon->bus, interface, member, &error, "s", text)
             : client_bus_new_call(daemon->bus, interface, member, &error, nullptr);
    send_call(daemon, call, error, done);
}

void mqtt_daemon_list(MqttDaemon *daemon, bool with_metadata, const MqttClips &done)
{
    const auto read_list = [daemon, with_metadata, done](sd_bus_message *answer,
                                                         const GError *error) {
        g_autoptr(GError) failure = nullptr;
        GPtrArray *clips = answer ? client_clips_read(answer, &failure) : nullptr;
        if (!clips && client_clips_means_none(error)) {
            clips = g_ptr_array_new();
        }
        if (!clips) {
            done(nullptr, failure ? failure : error);
            return;
        }
        /* The handler is copied, so something that can be copied has to own the clips. */
        const std::shared_ptr<GPtrArray> owned(clips, g_ptr_array_unref);
        if (!with_metadata || clips->len == 0) {
            done(clips, nullptr);
            return;
        }
        const auto read_metadata = [owned, done](sd_bus_message *metadata, const GError *) {
            /* Without metadata, the list is still right. */
            if (metadata) {
                client_clips_read_metadata(owned.get(), metadata, nullptr);
            }
            done(owned.get(), nullptr);
        };
        mqtt_daemon_call(daemon, &CLIENT_SONOBRIK, "GetMetadata", nullptr, read_metadata);
    };
    mqtt_daemon_call(daemon, &CLIENT_LEGACY, "GetConfigurations", nullptr, read_list);
}

void mqtt_daemon_list_outputs(MqttDaemon *daemon,
                              const std::function<void(GPtrArray *outputs)> &done)
{
    mqtt_daemon_call(daemon, &EVENTS, "GetManagedObjects", nullptr,
                     [done](sd_bus_message *answer, const GError *) {
                         g_autoptr(GPtrArray) outputs =
                             answer ? client_outputs_read(answer, nullptr) : nullptr;
                         done(outputs);
                     });
}
