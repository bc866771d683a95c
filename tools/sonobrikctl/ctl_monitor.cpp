#include "ctl.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <systemd/sd-event.h>

#include "autoptr.h"
#include "client_bus.h"
#include "client_events.h"
#include "client_text.h"
#include "ctl_driver.h"
#include "ctl_json.h"
#include "ctl_options.h"
#include "ctl_say.h"
#include "ctl_watch.h"

namespace
{

constexpr const char *CHANGES_OBJECT = "/com/vesk/ConfigurationChanges1/SonoBrik";
constexpr const char *CHANGES_INTERFACE = "com.vesk.ConfigurationChanges1";

struct Monitor {
    sd_event *event;
    bool as_json;
};

/* Returns the current local time. */
std::string format_time(const char *format)
{
    g_autoptr(GDateTime) time = g_date_time_new_now_local();
    g_autofree char *text = g_date_time_format(time, format);
    return text;
}

/* Flushes the output, and ends the monitor if that fails. */
int flush(const Monitor *monitor)
{
    return ctl_flush() ? 0 : sd_event_exit(monitor->event, 0);
}

int print_line(const Monitor *monitor, const std::string &text)
{
    printf("%s %s\n", format_time("%H:%M:%S").c_str(), client_text_escape(text).c_str());
    return flush(monitor);
}

/* Prints `object`, which it takes, with the time and the kind of event in front. */
int print_json(const Monitor *monitor, const char *kind, json_t *object)
{
    g_autoptr(json_t) line = json_object();
    json_object_set_new(line, "time", json_string(format_time("%Y-%m-%dT%H:%M:%S.%f%:z").c_str()));
    json_object_set_new(line, "event", json_string(kind));
    json_object_update(line, object);
    json_decref(object);
    ctl_json_print(line, false);
    return flush(monitor);
}

json_t *describe_output(const ClientEvent &event)
{
    json_t *object = json_object();
    json_object_set_new(object, "output", json_integer(event.output));
    json_object_set_new(object, "device", json_integer(event.device));
    json_object_set_new(object, "deviceOutput", json_integer(event.device_output));
    return object;
}

int on_event(sd_bus_message *signal, void *data, sd_bus_error *)
{
    const auto *monitor = static_cast<const Monitor *>(data);
    ClientEvent event = {};
    if (client_event_read(signal, &event) <= 0) {
        return 0;
    }
    const std::string output = "output " + std::to_string(event.output);
    if (!monitor->as_json) {
        return print_line(monitor, event.is_state
                                       ? output + (event.playing ? " started playing" : " is idle")
                                       : output + " is playing " + event.file_name);
    }
    json_t *object = describe_output(event);
    if (event.is_state) {
        json_object_set_new(object, "playing", json_boolean(event.playing));
    } else {
        json_object_set_new(object, "file", json_string(event.file_name));
    }
    return print_json(monitor, event.is_state ? "playing" : "file", object);
}

/* Reads the a{ss} at the current position of `m`. Returns a new object, or null on failure. */
json_t *read_values(sd_bus_message *m)
{
    g_autoptr(json_t) values = json_object();
    const int r = client_bus_read_dict(m, "ss", [m, &values] {
        const char *key = nullptr;
        const char *value = nullptr;
        const int read = sd_bus_message_read(m, "ss", &key, &value);
        if (read >= 0) {
            json_object_set_new(values, key, json_string(value));
        }
        return read;
    });
    return r < 0 ? nullptr : g_steal_pointer(&values);
}

std::string get_text(const json_t *values, const char *key)
{
    const char *text = json_string_value(json_object_get(values, key));
    return text ? text : "";
}

int on_change(sd_bus_message *signal, void *data, sd_bus_error *)
{
    const auto *monitor = static_cast<const Monitor *>(data);
    const char *entry = nullptr;
    int is_change = 0;
    if (sd_bus_message_read(signal, "ssssb", nullptr, nullptr, nullptr, &entry, &is_change) < 0) {
        return 0;
    }
    g_autoptr(json_t) values = read_values(signal);
    if (!values) {
        return 0;
    }
    const char *slash = strrchr(entry, '/');
    const char *number = slash ? slash + 1 : entry;
    if (!monitor->as_json) {
        return print_line(
            monitor, std::string("clip ") + number + (is_change ? " changed: '" : " added: '") +
                         get_text(values, "Name") + "', " + get_text(values, "Location"));
    }
    json_t *object = json_object();
    json_object_set_new(object, "clip", json_string(number));
    json_object_set_new(object, "added", json_boolean(!is_change));
    json_object_set_new(object, "values", g_steal_pointer(&values));
    return print_json(monitor, "clip", object);
}

/* The owner of the events' bus name changed: the daemon started or stopped. */
int on_owner(sd_bus_message *signal, void *, sd_bus_error *)
{
    const char *owner = nullptr;
    const char *old_owner = nullptr;
    if (sd_bus_message_read(signal, "sss", nullptr, &old_owner, &owner) < 0) {
        return 0;
    }
    ctl_error("%s", *owner == '\0' ? "the daemon has stopped; waiting for it to start again"
                                   : "the daemon has started");
    return 0;
}

int subscribe(sd_bus *bus, Monitor *monitor)
{
    int r = sd_bus_match_signal(bus, nullptr, CLIENT_EVENTS_SERVICE, nullptr,
                                CLIENT_EVENT_INTERFACE, "Sent", on_event, monitor);
    if (r >= 0) {
        r = sd_bus_match_signal(bus, nullptr, CLIENT_EVENTS_SERVICE, CHANGES_OBJECT,
                                CHANGES_INTERFACE, "EntryChanged", on_change, monitor);
    }
    if (r >= 0) {
        r = client_bus_match_owner(bus, CLIENT_EVENTS_SERVICE, on_owner, monitor);
    }
    return r;
}

/* Prints whether events can be expected. */
void print_ready(sd_bus *bus)
{
    if (ctl_driver_has_owner(bus, CLIENT_EVENTS_SERVICE)) {
        ctl_error("watching; press Ctrl-C to quit");
    } else if (ctl_driver_has_owner(bus, CLIENT_SONOBRIK.service)) {
        ctl_error("the daemon is running, but this platform sends no events on the bus; waiting "
                  "anyway");
    } else {
        ctl_error("the daemon is not running; waiting for it to start");
    }
}

int run(sd_bus *bus, Monitor *monitor)
{
    int r = ctl_watch_attach(bus, monitor->event);
    if (r >= 0) {
        r = subscribe(bus, monitor);
    }
    if (r < 0) {
        g_autoptr(GError) error = nullptr;
        client_bus_set_error(&error, r, nullptr);
        return ctl_explain_bus(error);
    }
    print_ready(bus);
    return ctl_watch_run(bus, monitor->event);
}

int watch(sd_bus *bus, bool as_json)
{
    g_autoptr(sd_event) event = nullptr;
    const int r = sd_event_new(&event);
    if (r < 0) {
        ctl_error("cannot create an event loop: %s", g_strerror(-r));
        return CTL_FAILED;
    }
    Monitor monitor = {.event = event, .as_json = as_json};
    return run(bus, &monitor);
}

} // namespace

int ctl_monitor(const CtlCommand *command, char **words)
{
    gboolean as_json = FALSE;
    const GOptionEntry entries[] = {
        ctl_options_flag("json", 0, "Print one JSON object per line, for programs", &as_json),
        {},
    };
    return ctl_options_run(command, words, entries, nullptr,
                           [&as_json](sd_bus *bus, char **) { return watch(bus, as_json); });
}
