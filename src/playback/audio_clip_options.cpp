#include "audio_clip_options.h"

#include <cstring>

#include "audio_output.h"
#include "device_utils.h"
#include "log_level.h"
#include "platform/util.h"
#include "repeat.h"

namespace
{

constexpr guint32 MAX_VOLUME = 1000;

/*
 * Keys with equal hashes make the table quadratic: half a megabyte of them held the main loop for
 * two seconds, 64 KiB of them take 40 ms.
 */
constexpr size_t MAX_OPTIONS_LENGTH = size_t{64} * 1024;

bool has_valid_length(const char *options)
{
    return options && *options != '\0' &&
           strnlen(options, MAX_OPTIONS_LENGTH + 1) <= MAX_OPTIONS_LENGTH;
}

/*
 * Returns a copy of `value` in UTF-8. Older clients send ISO-8859-1, so a value that is not valid
 * UTF-8 is converted from that. Returns null, with a warning, if it cannot be converted.
 */
char *value_to_utf8(const char *key, const char *value)
{
    if (g_utf8_validate(value, -1, nullptr)) {
        return g_strdup(value);
    }
    g_autoptr(GError) error = nullptr;
    char *converted = g_convert(value, -1, "UTF-8", "ISO-8859-1", nullptr, nullptr, &error);
    if (!converted) {
        g_warning("%sCould not convert option '%s', value '%s' from ISO-8859-1: %s.", "", key,
                  value, error->message);
    }
    return converted;
}

/*
 * Adds one "key=value" piece to the table; splits and unescapes the piece in place. Skips a piece
 * that is not text. Returns false if the table already has the key.
 */
bool add_piece(GHashTable *table, char *piece)
{
    char *value = strchr(piece, '=');
    if (value) {
        *value++ = '\0';
        audio_clip_option_unescape(value);
    }
    audio_clip_option_unescape(piece);
    if (!g_utf8_validate(piece, -1, nullptr)) {
        return true;
    }
    g_autofree char *text = value_to_utf8(piece, value ? value : "");
    if (!text) {
        return true;
    }
    /* A key given twice is an error, because either value could be the intended one. */
    if (g_hash_table_contains(table, piece)) {
        return false;
    }
    g_hash_table_insert(table, g_strdup(piece), g_steal_pointer(&text));
    return true;
}

/* Returns the keys and values of `options`; null, with a warning, if they are invalid. */
GHashTable *acquire_options(const char *options)
{
    g_autoptr(GHashTable) table = nullptr;
    bool acquired = false;
    if (has_valid_length(options)) {
        g_auto(GStrv) pieces = g_strsplit(options, "&", -1);
        table = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
        acquired = true;
        for (char **piece = pieces; *piece && acquired; piece++) {
            acquired = **piece == '\0' || add_piece(table, *piece);
        }
    }
    if (!acquired) {
        g_warning("%sFailed to acquire option hash.", "");
        return nullptr;
    }
    return g_steal_pointer(&table);
}

/* Returns the value of the option, which the table owns; null if it is missing or empty. */
const char *get_option(GHashTable *table, const char *key)
{
    auto *value = static_cast<const char *>(g_hash_table_lookup(table, key));
    return value && *value != '\0' ? value : nullptr;
}

bool read_volume(GHashTable *table, gint32 *volume)
{
    const char *text = get_option(table, "volume");
    gint32 value = 100;
    if (text && (!util_str_to_int(text, &value) || static_cast<guint32>(value) > MAX_VOLUME)) {
        g_info("%sInvalid volume parameter '%s'.", "", text);
        return false;
    }
    *volume = value;
    return true;
}

bool read_repeat(GHashTable *table, gint32 *repeat)
{
    const char *text = get_option(table, "repeat");
    gint32 value = 0;
    if (text && (!util_str_to_int(text, &value) || value < REPEAT_ENDLESS)) {
        g_info("%sInvalid repeat parameter '%s'.", "", text);
        return false;
    }
    *repeat = value;
    return true;
}

/* Reads the output number that "audiooutput" gives; a usable device must have it. */
bool read_audio_output(const char *text, AudioOutputIds *output)
{
    gint32 value = 0;
    if (!util_str_to_int(text, &value) || !device_utils_in_range(value) ||
        !device_utils_valid_id(value)) {
        g_info("%sInvalid 'audiooutput' option index: '%s'.", "", text);
        return false;
    }
    output->audio_output = value;
    return true;
}

/*
 * Reads a device id and the id of one of its outputs. They are not looked up: a pair that does not
 * exist fails later, when ALSA opens it. Logs nothing for an invalid number.
 */
bool read_device_pair(const char *device_text, const char *output_text, AudioOutputIds *output)
{
    gint32 device_id = 0;
    gint32 output_id = 0;
    if (!util_str_to_int(device_text, &device_id) || device_id < 0 ||
        !util_str_to_int(output_text, &output_id) || output_id < 0) {
        return false;
    }
    output->audio_device_id = device_id;
    output->audio_output_id = output_id;
    return true;
}

/* Picks the first suitable output. */
bool choose_audio_output(AudioOutputIds *output)
{
    const gint32 id = device_utils_find_suitable_id();
    if (!device_utils_in_range(id)) {
        g_info("%sNo audiooutput was specified, could not find a suitable device.", "");
        return false;
    }
    output->audio_output = id;
    return true;
}

/* Reads the output from the options, or picks one if they give none. Writes only on success. */
bool read_output(GHashTable *table, AudioOutputIds *output)
{
    const char *number_text = get_option(table, "audiooutput");
    if (number_text) {
        return read_audio_output(number_text, output);
    }
    const char *device_text = get_option(table, "audiodeviceid");
    const char *output_text = get_option(table, "audiooutputid");
    if (device_text && output_text) {
        return read_device_pair(device_text, output_text, output);
    }
    return choose_audio_output(output);
}

/* Returns the ALSA name of the output as a new string. */
char *make_alsa_device(const AudioOutputIds &output)
{
    if (output.audio_output >= 0) {
        return g_strdup_printf("audiosink%d", output.audio_output);
    }
    return g_strdup_printf("device%d_output%d", output.audio_device_id, output.audio_output_id);
}

} // namespace

bool audio_clip_parse_options(const char *options, char **location, gint32 *volume, gint32 *repeat,
                              gint32 *audio_output, gint32 *audio_device_id,
                              gint32 *audio_output_id, char **alsa_device)
{
    if (!location || !volume || !repeat) {
        return false;
    }
    g_autoptr(GHashTable) table = acquire_options(options);
    if (!table) {
        return false;
    }

    const char *location_text = get_option(table, "location");
    if (!location_text) {
        log_error("%sMissing location.", "");
        return false;
    }
    *location = g_strdup(location_text);

    if (!read_volume(table, volume) || !read_repeat(table, repeat)) {
        return false;
    }

    if (!audio_output || !audio_device_id || !audio_output_id) {
        return true;
    }
    if (!alsa_device) {
        return false;
    }
    AudioOutputIds output = {-1, -1, -1};
    const bool chosen = read_output(table, &output);
    *audio_output = output.audio_output;
    *audio_device_id = output.audio_device_id;
    *audio_output_id = output.audio_output_id;
    *alsa_device = chosen ? make_alsa_device(output) : nullptr;
    return chosen;
}

void audio_clip_option_unescape(char *text)
{
    if (!text) {
        return;
    }
    char *out = text;
    for (const char *in = text; *in != '\0'; in++) {
        if (*in == '%' && g_ascii_isxdigit(in[1]) && g_ascii_isxdigit(in[2])) {
            *out++ =
                static_cast<char>(g_ascii_xdigit_value(in[1]) << 4 | g_ascii_xdigit_value(in[2]));
            in += 2;
        } else {
            *out++ = *in == '+' ? ' ' : *in;
        }
    }
    *out = '\0';
}
