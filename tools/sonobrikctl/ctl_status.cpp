#include "ctl.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <systemd/sd-event.h>
#include <vector>

#include "autoptr.h"
#include "client_bus.h"
#include "client_clips.h"
#include "client_devices.h"
#include "client_events.h"
#include "client_text.h"
#include "ctl_host.h"
#include "ctl_json.h"
#include "ctl_options.h"
#include "ctl_outputs.h"
#include "ctl_say.h"
#include "ctl_terminal.h"
#include "ctl_watch.h"

namespace
{

constexpr uint64_t REDRAW_US = 200000;
constexpr gint64 UNKNOWN = -1;

/* What an output is playing. */
struct Playing {
    gint32 output;
    std::string output_name; /* empty if it is not known */
    std::string location;
    gint64 number;     /* of the stored clip with this file, or UNKNOWN */
    std::string name;  /* of that clip */
    gint64 length_ms;  /* of the file, or UNKNOWN */
    gint64 started_us; /* of g_get_monotonic_time(), or UNKNOWN */
};

struct Status {
    sd_bus *bus;
    sd_event *event;
    bool as_json;
    bool is_live;     /* redraws one line of a terminal */
    GPtrArray *clips; /* owned; null if this user may not list them */
    std::vector<Playing> playing;
    std::string shown; /* what was printed last, so that it is not repeated */
};

/* Returns the position in the file, or UNKNOWN. */
gint64 find_position(const Playing &playing)
{
    if (playing.started_us == UNKNOWN) {
        return UNKNOWN;
    }
    const gint64 elapsed = (g_get_monotonic_time() - playing.started_us) / 1000;
    return playing.length_ms < 0 ? elapsed : std::min(elapsed, playing.length_ms);
}

/* Sets name, number and length from the stored clip that has this file. */
void look_up(const Status &status, Playing *playing)
{
    playing->number = UNKNOWN;
    playing->length_ms = UNKNOWN;
    for (guint i = 0; status.clips && i < status.clips->len; i++) {
        const auto *clip = static_cast<const ClientClip *>(g_ptr_array_index(status.clips, i));
        if (playing->location == clip->location) {
            playing->number = clip->number;
            playing->name = clip->name;
            playing->length_ms = clip->duration_ms;
            return;
        }
    }
}

/* Reads the list of clips again. It stays null for a user who may not list them. */
void read_clips(Status *status)
{
    g_clear_pointer(&status->clips, g_ptr_array_unref);
    status->clips = client_clips_list(status->bus, true, nullptr);
    if (!status->clips) {
        status->clips = client_clips_list(status->bus, false, nullptr);
    }
}

/*
 * Returns since when the file plays, on this machine's clock, or UNKNOWN. Another machine's clock
 * differs, and an older daemon does not tell its time.
 */
gint64 find_start(const ClientOutput &output)
{
    if (output.file_since == 0) {
        return UNKNOWN;
    }
    if (output.now >= output.file_since) {
        return g_get_monotonic_time() - static_cast<gint64>(output.now - output.file_since);
    }
    return ctl_host() ? UNKNOWN : static_cast<gint64>(output.file_since);
}

/* Records that an output plays `location` from the time `started_us` on. Call read_clips() before.
 */
void set_playing(Status *status, gint32 output, const char *location, gint64 started_us)
{
    std::erase_if(status->playing, [output](const Playing &p) { return p.output == output; });
    g_autoptr(GPtrArray) devices = client_devices_list(status->bus, nullptr);
    Playing playing = {
        .output = output,
        .output_name = ctl_outputs_name(devices, output),
        .location = location,
        .number = UNKNOWN,
        .name = "",
        .length_ms = UNKNOWN,
        .started_us = started_us,
    };
    look_up(*status, &playing);
    status->playing.push_back(playing);
}

/* Reads from the daemon what is playing now. Returns an exit status. */
int read_status(Status *status)
{
    g_autoptr(GPtrArray) outputs = nullptr;
    const int result = ctl_outputs_list(status->bus, &outputs);
    if (result != CTL_OK) {
        return result;
    }
    status->playing.clear();
    read_clips(status);
    for (guint i = 0; i < outputs->len; i++) {
        const auto *output = static_cast<const ClientOutput *>(g_ptr_array_index(outputs, i));
        if (output->playing) {
            set_playing(status, output->output, output->file_name, find_start(*output));
        }
    }
    return CTL_OK;
}

std::string describe_output(const Playing &playing)
{
    return std::to_string(playing.output) +
           (playing.output_name.empty() ? "" : ", " + playing.output_name);
}

/* Returns "0:03.2 / 0:12.0"; "-" for what is not known. */
std::string describe_times(const Playing &playing)
{
    return client_text_duration(find_position(playing)) + " / " +
           client_text_duration(playing.length_ms);
}

void print_text(const Status &status)
{
    if (status.playing.empty()) {
        puts("nothing is playing");
        return;
    }
    const char *gap = "";
    for (const Playing &playing : status.playing) {
        fputs(gap, stdout);
        gap = "\n";
        if (playing.number != UNKNOWN) {
            printf("Clip:      %" G_GINT64_FORMAT " %s\n", playing.number,
                   client_text_escape(playing.name).c_str());
        }
        printf("File:      %s\nOutput:    %s\nPosition:  %s\nLength:    %s\n",
               client_text_escape(client_clips_relative(playing.location.c_str())).c_str(),
               client_text_escape(describe_output(playing)).c_str(),
               playing.started_us == UNKNOWN ? "not known (this platform does not report it)"
                                             : client_text_duration(find_position(playing)).c_str(),
               client_text_duration(playing.length_ms).c_str());
    }
}

json_t *describe(const Playing &playing)
{
    json_t *object = json_object();
    const bool is_clip = playing.number != UNKNOWN;
    json_object_set_new(object, "output", json_integer(playing.output));
    json_object_set_new(object, "outputName",
                        playing.output_name.empty() ? json_null()
                                                    : json_string(playing.output_name.c_str()));
    json_object_set_new(object, "clip", ctl_json_number_or_null(playing.number));
    json_object_set_new(object, "name", is_clip ? json_string(playing.name.c_str()) : json_null());
    json_object_set_new(object, "location", json_string(playing.location.c_str()));
    json_object_set_new(object, "positionMs", ctl_json_number_or_null(find_position(playing)));
    json_object_set_new(object, "durationMs", ctl_json_number_or_null(playing.length_ms));
    return object;
}

void print_json(const Status &status, bool is_indented)
{
    g_autoptr(json_t) array = json_array();
    for (const Playing &playing : status.playing) {
        json_array_append_new(array, describe(playing));
    }
    ctl_json_print(array, is_indented);
}

/* Returns one line that says what plays now. */
std::string describe_line(const Status &status)
{
    std::string line;
    for (const Playing &playing : status.playing) {
        const std::string title =
            playing.name.empty() ? client_clips_relative(playing.location.c_str()) : playing.name;
        line += (line.empty() ? "" : "; ") +
                (status.is_live ? describe_times(playing) + "  " : std::string()) + title +
                "  on output " + describe_output(playing);
    }
    return line.empty() ? "nothing is playing" : client_text_escape(line);
}

/* Prints the status of a watch: on a terminal over the line before, elsewhere if it has changed. */
int show(Status *status)
{
    if (status->as_json) {
        print_json(*status, false);
    } else if (status->is_live) {
        ctl_terminal_redraw(stdout, describe_line(*status));
    } else if (const std::string line = describe_line(*status); line != status->shown) {
        puts(line.c_str());
        status->shown = line;
    }
    return ctl_flush() ? 0 : sd_event_exit(status->event, CTL_OK);
}

int on_event(sd_bus_message *signal, void *data, sd_bus_error *)
{
    auto *status = static_cast<Status *>(data);
    ClientEvent event = {};
    if (client_event_read(signal, &event) <= 0) {
        return 0;
    }
    if (!event.is_state) {
        read_clips(status); /* others may have changed them since the last file */
        set_playing(status, event.output, event.file_name, g_get_monotonic_time());
    } else if (!event.playing) {
        std::erase_if(status->playing,
                      [&event](const Playing &p) { return p.output == event.output; });
    } else {
        return 0; /* the event with the file follows */
    }
    return show(status);
}

/* The daemon has stopped or started; in both cases nothing is playing. */
int on_owner(sd_bus_message *, void *data, sd_bus_error *)
{
    auto *status = static_cast<Status *>(data);
    status->playing.clear();
    return show(status);
}

int on_redraw(sd_event_source *source, uint64_t, void *data)
{
    auto *status = static_cast<Status *>(data);
    const int r = status->playing.empty() ? 0 : show(status);
    sd_event_source_set_time_relative(source, REDRAW_US);
    const int enabled = sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
    return r < 0 ? r : enabled;
}

int subscribe(Status *status)
{
    int r = ctl_watch_attach(status->bus, status->event);
    if (r >= 0) {
        r = sd_bus_match_signal(status->bus, nullptr, CLIENT_EVENTS_SERVICE, nullptr,
                                CLIENT_EVENT_INTERFACE, "Sent", on_event, status);
    }
    if (r >= 0) {
        r = client_bus_match_owner(status->bus, CLIENT_EVENTS_SERVICE, on_owner, status);
    }
    if (r >= 0 && status->is_live) {
        r = sd_event_add_time_relative(status->event, nullptr, CLOCK_MONOTONIC, REDRAW_US, 0,
                                       on_redraw, status);
    }
    return r;
}

int watch(Status *status)
{
    g_autoptr(sd_event) event = nullptr;
    int r = sd_event_new(&event);
    status->event = event;
    status->is_live = !status->as_json && ctl_terminal_is_rich(stdout);
    if (r < 0 || (r = subscribe(status)) < 0) {
        g_autoptr(GError) error = nullptr;
        client_bus_set_error(&error, r, nullptr);
        return ctl_explain_bus(error);
    }
    /* After subscribing, so that no event between the two is missed. */
    const int result = read_status(status);
    if (result != CTL_OK) {
        return result;
    }
    show(status);
    return ctl_watch_run(status->bus, event);
}

int run(Status *status, bool is_watching)
{
    if (is_watching) {
        return watch(status);
    }
    const int result = read_status(status);
    if (result != CTL_OK) {
        return result;
    }
    if (status->as_json) {
        print_json(*status, true);
    } else {
        print_text(*status);
    }
    return CTL_OK;
}

} // namespace

int ctl_status(const CtlCommand *command, char **words)
{
    gboolean as_json = FALSE;
    gboolean is_watching = FALSE;
    const GOptionEntry entries[] = {
        ctl_options_flag("json", 0, "Print a JSON array, for programs", &as_json),
        ctl_options_flag("watch", 'w', "Keep printing what is playing, until Ctrl-C", &is_watching),
        {},
    };
    return ctl_options_run(command, words, entries, nullptr, [&](sd_bus *bus, char **) {
        Status status = {};
        status.bus = bus;
        status.as_json = as_json;
        const int result = run(&status, is_watching);
        g_clear_pointer(&status.clips, g_ptr_array_unref);
        return result;
    });
}
