#include "ctl_outputs.h"

#include <cstdio>
#include <string>

#include "autoptr.h"
#include "client_bus.h"
#include "client_devices.h"
#include "client_text.h"
#include "ctl.h"
#include "ctl_driver.h"
#include "ctl_host.h"
#include "ctl_json.h"
#include "ctl_options.h"
#include "ctl_say.h"
#include "ctl_terminal.h"

namespace
{

/* In place of ClientOutput.device_output for a device that is not plugged in. */
constexpr gint32 NO_OUTPUT = -1;

/*
 * Adds the devices that are not plugged in to `outputs`, at their places. The daemon does not know
 * them, so they have no output of the device.
 */
void add_unplugged(GPtrArray *outputs, const GPtrArray *devices)
{
    for (guint i = 0; i < devices->len; i++) {
        const auto *device = static_cast<const ClientDevice *>(g_ptr_array_index(devices, i));
        guint place = 0;
        while (place < outputs->len &&
               static_cast<const ClientOutput *>(g_ptr_array_index(outputs, place))->output <
                   device->number) {
            place++;
        }
        const bool is_listed =
            place < outputs->len &&
            static_cast<const ClientOutput *>(g_ptr_array_index(outputs, place))->output ==
                device->number;
        if (!device->plugged_in && !is_listed) {
            auto *output = g_new0(ClientOutput, 1);
            output->output = device->number;
            output->device = device->number;
            output->device_output = NO_OUTPUT;
            g_ptr_array_insert(outputs, static_cast<gint>(place), output);
        }
    }
}

/* Returns the card of an output; empty with --host, because ALSA knows this machine's only. */
CtlCard find_card(gint32 output)
{
    return ctl_host() ? CtlCard{} : ctl_outputs_card(output);
}

bool is_unplugged(const ClientOutput &output)
{
    return output.device_output == NO_OUTPUT || find_card(output.output).is_missing;
}

/* Returns the name of an output, or that of a device that is not plugged in. */
std::string find_name(const ClientOutput &output, const GPtrArray *devices)
{
    return output.device_output == NO_OUTPUT ? client_devices_get(devices, output.device)->name
                                             : ctl_outputs_name(devices, output.output);
}

const char *describe_state(const ClientOutput &output)
{
    if (output.playing) {
        return "playing";
    }
    return is_unplugged(output) ? "unplugged" : "idle";
}

void print_table(const GPtrArray *outputs, const GPtrArray *devices)
{
    CtlTable table = {
        .is_right = {true, true, true, false, false, false},
        .can_shrink = {false, false, false, true, false, true},
        .rows = {{"OUTPUT", "DEVICE", "DEVICE-OUTPUT", "NAME", "STATE", "FILE"}},
    };
    for (guint i = 0; i < outputs->len; i++) {
        const auto *output = static_cast<const ClientOutput *>(g_ptr_array_index(outputs, i));
        const std::string name = find_name(*output, devices);
        table.rows.push_back({
            std::to_string(output->output),
            std::to_string(output->device),
            output->device_output == NO_OUTPUT ? "-" : std::to_string(output->device_output),
            name.empty() ? "-" : name,
            describe_state(*output),
            output->playing ? output->file_name : "",
        });
    }
    if (outputs->len > 0) {
        ctl_table_print(&table);
    } else if (devices) {
        ctl_error("no outputs; plug in a sound card");
    } else {
        ctl_error(
            "no outputs; to create output 0, define PCM 'audiosink0' in the ALSA configuration");
    }
}

void print_json(const GPtrArray *outputs, const GPtrArray *devices)
{
    g_autoptr(json_t) array = json_array();
    for (guint i = 0; i < outputs->len; i++) {
        const auto *output = static_cast<const ClientOutput *>(g_ptr_array_index(outputs, i));
        const std::string name = find_name(*output, devices);
        json_t *object = json_object();
        json_object_set_new(object, "output", json_integer(output->output));
        json_object_set_new(object, "device", json_integer(output->device));
        json_object_set_new(object, "deviceOutput", ctl_json_number_or_null(output->device_output));
        json_object_set_new(object, "name", name.empty() ? json_null() : json_string(name.c_str()));
        json_object_set_new(object, "unplugged", json_boolean(is_unplugged(*output)));
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

std::string ctl_outputs_name(const GPtrArray *devices, gint32 output)
{
    const char *name = client_devices_get_name(devices, output);
    return name ? name : find_card(output).name;
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
        if (outputs) {
            /* Null without the audio control service, which is not an error. */
            g_autoptr(GPtrArray) devices = client_devices_list(bus, nullptr);
            if (devices) {
                add_unplugged(outputs, devices);
            }
            (as_json ? print_json : print_table)(outputs, devices);
        }
        return status;
    });
}
