#include "ctl_outputs.h"

#include <cstdio>
#include <string>

#include "autoptr.h"
#include "client_bus.h"
#include "client_text.h"
#include "ctl.h"
#include "ctl_driver.h"
#include "ctl_json.h"
#include "ctl_options.h"
#include "ctl_say.h"
#include "ctl_terminal.h"

namespace
{

const char *describe_state(const ClientOutput &output, const CtlCard &card)
{
    if (output.playing) {
        return "playing";
    }
    return card.is_missing ? "unplugged" : "idle";
}

void print_table(const GPtrArray *outputs)
{
    CtlTable table = {
        .is_right = {true, true, true, false, false, false},
        .can_shrink = {false, false, false, true, false, true},
        .rows = {{"OUTPUT", "DEVICE", "DEVICE-OUTPUT", "NAME", "STATE", "FILE"}},
    };
    for (guint i = 0; i < outputs->len; i++) {
        const auto *output = static_cast<const ClientOutput *>(g_ptr_array_index(outputs, i));
        const CtlCard card = ctl_outputs_card(output->output);
        table.rows.push_back({
            std::to_string(output->output),
            std::to_string(output->device),
            std::to_string(output->device_output),
            card.name.empty() ? "-" : card.name,
            describe_state(*output, card),
            output->playing ? output->file_name : "",
        });
    }
    if (outputs->len == 0) {
        ctl_error(
            "no outputs; to create output 0, define PCM 'audiosink0' in the ALSA configuration");
        return;
    }
    ctl_table_print(&table);
}

void print_json(const GPtrArray *outputs)
{
    g_autoptr(json_t) array = json_array();
    for (guint i = 0; i < outputs->len; i++) {
        const auto *output = static_cast<const ClientOutput *>(g_ptr_array_index(outputs, i));
        const CtlCard card = ctl_outputs_card(output->output);
        json_t *object = json_object();
        json_object_set_new(object, "output", json_integer(output->output));
        json_object_set_new(object, "device", json_integer(output->device));
        json_object_set_new(object, "deviceOutput", json_integer(output->device_output));
        json_object_set_new(object, "name",
                            card.name.empty() ? json_null() : json_string(card.name.c_str()));
        json_object_set_new(object, "unplugged", json_boolean(card.is_missing));
        json_object_set_new(object, "playing", json_boolean(output->playing));
        json_object_set_new(object, "file",
                            output->playing ? json_string(output->file_name) : json_null());
        json_array_append_new(array, object);
    }
    ctl_json_print(array, true);
}

/* Makes the bus start the daemon if it is not running. Returns false and sets `error` on failure.
 */
bool start_daemon(sd_bus *bus, GError **error)
{
    if (ctl_driver_has_owner(bus, CLIENT_SONOBRIK.service)) {
        return true;
    }
    sd_bus_message *call = client_bus_new_call(bus, &CTL_BUS_DRIVER, "StartServiceByName", error,
                                               "su", CLIENT_SONOBRIK.service, 0);
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, call, error);
    return answer != nullptr;
}

} // namespace

int ctl_outputs_list(sd_bus *bus, GPtrArray **outputs)
{
    const CtlCall call = {
        .bus = bus,
        .interface = &CLIENT_SONOBRIK,
        .method = "GetManagedObjects",
    };
    g_autoptr(GError) error = nullptr;
    if (!start_daemon(bus, &error)) {
        return ctl_explain(&call, error);
    }
    *outputs = client_outputs_list(bus, &error);
    if (*outputs) {
        return CTL_OK;
    }
    if (g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_NO_DAEMON) &&
        !ctl_driver_has_owner(bus, CLIENT_EVENTS_SERVICE)) {
        ctl_error("the daemon is running, but this platform does not list its outputs on the bus");
        return CTL_FAILED;
    }
    return ctl_explain(&call, error);
}

int ctl_outputs(const CtlCommand *command, char **words)
{
    gboolean as_json = FALSE;
    const GOptionEntry entries[] = {
        ctl_options_flag("json", 0, "Print a JSON array, for programs", &as_json),
        {},
    };
    return ctl_options_run(command, words, entries, nullptr, [&as_json](sd_bus *bus, char **) {
        g_autoptr(GPtrArray) outputs = nullptr;
        const int status = ctl_outputs_list(bus, &outputs);
        if (status == CTL_OK) {
            (as_json ? print_json : print_table)(outputs);
        }
        return status;
    });
}
