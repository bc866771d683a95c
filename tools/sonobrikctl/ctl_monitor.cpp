#include "ctl.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <systemd/sd-event.h>
#include <unistd.h>

#include "autoptr.h"
#include "client_bus.h"
#include "client_events.h"
#include "client_text.h"
#include "ctl_driver.h"
#include "ctl_json.h"
#include "ctl_options.h"
#include "ctl_say.h"

namespace
{

constexpr const char *CHANGES_OBJECT = "/com/vesk/ConfigurationChanges1/SonoBrik";
constexpr const char *CHANGES_INTERFACE = "com.vesk.ConfigurationChanges1";

struct Monitor {
    sd_event *event;
    bool as_json;
};

std::string now(const char *format)
{
    g_autoptr(GDateTime) time = g_date_time_new_now_local();
    g_autofree char *text = g_date_time_format(time, format);
    return text;
}

/* Ends the monitor when nothing can be written any more. */
int flush(const Monitor *monitor)
{
    return fflush(stdout) == 0 ? 0 : sd_event_exit(monitor->event, 0);
}

int print_line(const Monitor *monitor, const std::string &text)
{
    g_autofree char *escaped = client_text_escape(text.c_str());
    printf("%s %s\n", now("%H:%M:%S").c_str(), escaped);
    return flush(monitor);
}

/* Takes `object`, and adds when and what it is. */
int print_json(const Monitor *monitor, const char *what, json_t *object)
{
    g_autoptr(json_t) line = json_object();
    json_object_set_new(line, "time", json_string(now("%Y-%m-%dT%H:%M:%S.%f%:z").c_str()));
    json_object_set_new(line, "event", json_string(what));
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
                                       ? output + (event.playing ? " begins to play" : " is idle")
                                       : output + " plays " + event.file_name);
    }
    json_t *object = describe_output(event);
    if (event.is_state) {
        json_object_set_new(object, "playing", json_boolean(event.playing));
    } else {
        json_object_set_new(object, "file", ctl_json_text(event.file_name));
    }
    return print_json(monitor, event.is_state ? "playing" : "file", object);
}

/* Reads the a{ss} at which `m` stands. */
json_t *read_values(sd_bus_message *m)
{
    g_autoptr(json_t) values = json_object();
    const char *key = nullptr;
    const char *value = nullptr;
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{ss}");
    while (r >= 0 && (r = sd_bus_message_read(m, "{ss}", &key, &value)) > 0) {
        json_object_set_new(values, key, ctl_json_text(value));
    }
    return r < 0 ? nullptr : g_steal_pointer(&values);
}

std::string text_of(const json_t *values, const char *key)
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
        return print_line(monitor, std::string("clip ") + number +
                                       (is_change ? " is changed: '" : " is added: '") +
                                       text_of(values, "Name") + "', " +
                                       text_of(values, "Location"));
    }
    json_t *object = json_object();
    json_object_set_new(object, "clip", ctl_json_text(number));
    json_object_set_new(object, "added", json_boolean(!is_change));
    json_object_set_new(object, "values", g_steal_pointer(&values));
    return print_json(monitor, "clip", object);
}

/* The events' name came or went: the daemon's begin and end. */
int on_owner(sd_bus_message *signal, void *, sd_bus_error *)
{
    const char *owner = nullptr;
    const char *old_owner = nullptr;
    if (sd_bus_message_read(signal, "sss", nullptr, &old_owner, &owner) < 0) {
        return 0;
    }
    ctl_error("%s", *owner == '\0' ? "the daemon has ended; waiting for its next start"
                                   : "the daemon has started");
    return 0;
}

int on_bus_lost(sd_bus_message *, void *data, sd_bus_error *)
{
    ctl_error("the system bus is gone");
    return sd_event_exit(static_cast<const Monitor *>(data)->event, CTL_AWAY);
}

/* Nobody reads the output any more, and none may come for long that would tell. */
int on_output_closed(sd_event_source *source, int, uint32_t, void *)
{
    return sd_event_exit(sd_event_source_get_event(source), CTL_OK);
}

int watch(sd_bus *bus, Monitor *monitor)
{
    int r = sd_bus_match_signal(bus, nullptr, CLIENT_EVENTS_SERVICE, nullptr,
                                CLIENT_EVENT_INTERFACE, "Sent", on_event, monitor);
    if (r >= 0) {
        r = sd_bus_match_signal(bus, nullptr, CLIENT_EVENTS_SERVICE, CHANGES_OBJECT,
                                CHANGES_INTERFACE, "EntryChanged", on_change, monitor);
    }
    if (r >= 0) {
        const std::string rule = std::string("type='signal',sender='") + CTL_BUS_DRIVER.service +
                                 "',member='NameOwnerChanged',arg0='" + CLIENT_EVENTS_SERVICE + "'";
        r = sd_bus_add_match(bus, nullptr, rule.c_str(), on_owner, monitor);
    }
    if (r >= 0) {
        r = sd_bus_match_signal(bus, nullptr, "org.freedesktop.DBus.Local", nullptr,
                                "org.freedesktop.DBus.Local", "Disconnected", on_bus_lost, monitor);
    }
    return r;
}

/* Says that there is something to wait for, or not yet, or perhaps never. */
void say_ready(sd_bus *bus)
{
    if (ctl_driver_has_owner(bus, CLIENT_EVENTS_SERVICE)) {
        ctl_error("watching; Ctrl-C ends");
    } else if (ctl_driver_has_owner(bus, CLIENT_SONOBRIK.service)) {
        ctl_error("the daemon runs, and this platform announces no events on the bus; waiting "
                  "all the same");
    } else {
        ctl_error("the daemon does not run; waiting for its start");
    }
}

int run(sd_bus *bus, Monitor *monitor)
{
    int r = sd_bus_attach_event(bus, monitor->event, SD_EVENT_PRIORITY_NORMAL);
    if (r >= 0) {
        r = watch(bus, monitor);
    }
    if (r < 0) {
        g_autoptr(GError) error = nullptr;
        client_bus_set_error(&error, r, nullptr);
        return ctl_explain_bus(error);
    }
    say_ready(bus);
    /* A file cannot be waited for, and need not be. */
    sd_event_add_io(monitor->event, nullptr, STDOUT_FILENO, 0, on_output_closed, nullptr);
    r = sd_event_loop(monitor->event);
    sd_bus_detach_event(bus);
    return r < 0 ? CTL_FAILED : r;
}

} // namespace

int ctl_monitor(const CtlCommand *command, char **words)
{
    gboolean as_json = FALSE;
    const GOptionEntry entries[] = {
        {"json", 0, 0, G_OPTION_ARG_NONE, &as_json, "For programs: a JSON object a line", nullptr},
        {},
    };
    g_auto(GStrv) operands = ctl_options_read(command, words, entries, 0, 0);
    if (!operands) {
        return CTL_USAGE;
    }
    g_autoptr(sd_bus) bus = ctl_bus_open();
    if (!bus) {
        return CTL_AWAY;
    }
    Monitor monitor = {.event = nullptr, .as_json = as_json != FALSE};
    if (sd_event_new(&monitor.event) < 0) {
        ctl_error("no event loop: %s", g_strerror(ENOMEM));
        return CTL_FAILED;
    }
    const int status = run(bus, &monitor);
    sd_event_unref(monitor.event);
    return status;
}
