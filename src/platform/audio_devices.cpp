#include "platform/audio_devices.h"

#include <charconv>
#include <map>
#include <set>
#include <stdarg.h>
#include <string>
#include <string_view>
#include <system_error>

/* The header declares snd_lib_error_set_local() without extern "C". */
extern "C" {
#include <alsa/asoundlib.h>
}

#include "alsa_files.h"

/* The numbers of the devices, each with the numbers of its outputs. */
using Devices = std::map<int, std::set<int>>;

/*
 * The result of reading the configuration. It is cached until one of the files changes: reading
 * takes fifty times as long as checking the files.
 */
static struct {
    bool is_read;           /* `files` is valid */
    bool is_usable;         /* the configuration could be parsed */
    AlsaFiles files;        /* as they were just before the configuration was read */
    std::string complaints; /* messages of alsa-lib */
    Devices devices;
} listing;

/* Appends a message of alsa-lib to the complaints. One failure may cause several messages. */
static void note_complaint(const char *, int, const char *, int error, const char *format,
                           va_list arguments)
{
    g_autofree char *text = g_strdup_vprintf(format, arguments);
    if (!listing.complaints.empty()) {
        listing.complaints += "; ";
    }
    listing.complaints += text;
    if (error != 0) {
        listing.complaints += std::string(": ") + snd_strerror(error);
    }
}

/*
 * Removes `prefix` and a decimal number from the beginning of `*text`. Refuses a sign or a leading
 * zero, because the player builds the PCM's name from the number and would not find such a PCM.
 */
static bool cut_number(std::string_view *text, std::string_view prefix, int *number)
{
    if (!text->starts_with(prefix)) {
        return false;
    }
    const std::string_view digits = text->substr(prefix.size());
    const char *end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, *number);
    const auto length = static_cast<size_t>(stop - digits.data());
    if (error != std::errc{} || digits.front() == '-' || (digits.front() == '0' && length > 1)) {
        return false;
    }
    *text = digits.substr(length);
    return true;
}

/* Adds the device or the output that the PCM `name` stands for, if any. */
static void add_name(std::string_view name, Devices *devices, Devices *outputs)
{
    int device;
    int output;
    std::string_view rest = name;
    if (cut_number(&rest, "audiosink", &device) && rest.empty()) {
        (*devices)[device];
    }
    rest = name;
    if (cut_number(&rest, "device", &device) && cut_number(&rest, "_output", &output) &&
        rest.empty()) {
        (*outputs)[device].insert(output);
    }
}

/* Returns the devices that the PCM names in the configuration `top` define. */
static Devices read_devices(snd_config_t *top)
{
    /* alsa-lib runs some hooks only when a PCM is searched, as the player will do. */
    snd_config_t *found = nullptr;
    if (snd_config_search_definition(top, "pcm", "audiosink", &found) >= 0) {
        snd_config_delete(found);
    }
    Devices devices;
    Devices outputs;
    snd_config_t *pcms = nullptr;
    if (snd_config_search(top, "pcm", &pcms) < 0 ||
        snd_config_get_type(pcms) != SND_CONFIG_TYPE_COMPOUND) {
        return devices;
    }
    snd_config_iterator_t position;
    snd_config_iterator_t next;
    snd_config_for_each(position, next, pcms)
    {
        const char *name = nullptr;
        if (snd_config_get_id(snd_config_iterator_entry(position), &name) >= 0 && name) {
            add_name(name, &devices, &outputs);
        }
    }
    for (auto &[device, own_outputs] : devices) {
        own_outputs = outputs.contains(device) ? outputs[device] : std::set<int>{0};
    }
    return devices;
}

/*
 * Reads the tree from which alsa-lib opens the player's PCMs, and leaves it in memory, so that the
 * first clip does not wait for it. Only while no other thread uses ALSA: threads of the player
 * change this tree when they open a PCM.
 */
static int read_global_tree()
{
    const int status = snd_config_update();
    if (status >= 0) {
        listing.devices = read_devices(snd_config);
    }
    return status;
}

/* Reads a private tree, which is freed at once. */
static int read_private_tree()
{
    snd_config_t *top = nullptr;
    snd_config_update_t *update = nullptr;
    const int status = snd_config_update_r(&top, &update, nullptr);
    if (status >= 0) {
        listing.devices = read_devices(top);
        snd_config_delete(top);
        snd_config_update_free(update);
    }
    return status;
}

/* Reads the configuration into the listing. */
static void read_configuration(bool is_first)
{
    listing.complaints.clear();
    listing.devices.clear();
    const int status = is_first ? read_global_tree() : read_private_tree();
    listing.is_usable = status >= 0;
    if (!listing.is_usable && listing.complaints.empty()) {
        listing.complaints = snd_strerror(status);
    }
}

/*
 * Updates the listing. After a failure each call tries again, because the cause may lie outside the
 * files (too many open files, for example). The same failure is logged only once.
 */
static void refresh()
{
    const bool is_first = !listing.is_read;
    const bool changed = is_first || alsa_files_changed(listing.files);
    if (!changed && listing.is_usable) {
        return;
    }
    const std::string known_complaints = changed ? "" : listing.complaints;
    const snd_local_error_handler_t previous = snd_lib_error_set_local(note_complaint);
    if (changed) {
        /* Must come before the reading, so that the next call notices an edit in between. */
        listing.files = alsa_files_find();
        listing.is_read = true;
        /* The player's PCMs come from this tree. alsa-lib rebuilds it when one is opened. */
        snd_config_update_free_global();
    }
    read_configuration(is_first);
    snd_lib_error_set_local(previous);
    if (!listing.complaints.empty() && listing.complaints != known_complaints) {
        g_warning("%sThe ALSA configuration cannot be read completely: %s", "",
                  listing.complaints.c_str());
    }
}

static struct AudioDevice *device_new(int device, const std::set<int> &outputs)
{
    auto *record = g_new0(struct AudioDevice, 1);
    record->id = g_strdup_printf("%d", device);
    record->outputs = g_new0(struct AudioOutput *, outputs.size() + 1);
    struct AudioOutput **next = record->outputs;
    for (const int output : outputs) {
        *next = g_new0(struct AudioOutput, 1);
        (*next++)->id = g_strdup_printf("%d", output);
    }
    return record;
}

struct AudioDevice **audio_devices_get(const void *)
{
    refresh();
    if (listing.devices.empty()) {
        return nullptr;
    }
    auto **devices = g_new0(struct AudioDevice *, listing.devices.size() + 1);
    struct AudioDevice **next = devices;
    for (const auto &[device, outputs] : listing.devices) {
        *next++ = device_new(device, outputs);
    }
    return devices;
}

void audio_devices_free(struct AudioDevice **devices)
{
    for (struct AudioDevice **device = devices; device && *device; ++device) {
        for (struct AudioOutput **output = (*device)->outputs; output && *output; ++output) {
            g_free((*output)->id);
            g_free(*output);
        }
        g_free((*device)->outputs);
        g_free((*device)->id);
        g_free(*device);
    }
    g_free(devices);
}
