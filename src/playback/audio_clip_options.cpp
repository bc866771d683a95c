#include "audio_clip_options.h"

#include <cstring>

#include "device_utils.h"
#include "log_level.h"
#include "platform/util.h"

namespace
{

constexpr guint32 MAX_VOLUME = 1000;
constexpr gint32 REPEAT_ENDLESS = -1;

/*
 * Returns a new copy of `value` in UTF-8. Clients of old write ISO-8859-1, so what is not valid
 * UTF-8 is taken for that. Null, with a warning, if it cannot be converted.
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
 * Adds one "key=value" piece, which is cut and unescaped in place, to the table. Returns false when
 * the table has the key already. A piece that is not text adds nothing.
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
    /* A key given twice is an error on purpose: a guess at the one that was meant could be wrong.
     */
    if (g_hash_table_contains(table, piece)) {
        return false;
    }
    g_hash_table_insert(table, g_strdup(piece), g_steal_pointer(&text));
    return true;
}

/* Returns the table of the options' keys and values, or null, with a warning. */
GHashTable *acquire_options(const char *options)
{
    g_autoptr(GHashTable) table = nullptr;
    bool acquired = false;
    if (options && *options != '\0') {
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

/* Returns the option's value, borrowed from the table; null if it is missing or empty. */
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

bool in_output_range(gint32 id)
{
    return id >= 0 && id <= DEVICE_UTILS_MAX_ID;
}

/* Reads the output that "audiooutput" names, which must exist. */
bool read_audio_output(const char *text, gint32 *audio_output, char **alsa_device)
{
    gint32 value = 0;
    if (!util_str_to_int(text, &value) || !in_output_range(value) ||
        !device_utils_valid_id(value)) {
        g_info("%sInvalid 'audiooutput' option index: '%s'.", "", text);
        return false;
    }
    *audio_output = value;
    *alsa_device = g_strdup_printf("audiosink%d", value);
    return true;
}

/*
 * Reads a device and one of its outputs. They are not looked up: ALSA refuses a pair that does not
 * exist. A bad number is refused without a log line, on purpose.
 */
bool read_device_pair(const char *device_text, const char *output_text, gint32 *audio_device_id,
                      gint32 *audio_output_id, char **alsa_device)
{
    gint32 device = 0;
    gint32 output = 0;
    if (!util_str_to_int(device_text, &device) || device < 0 ||
        !util_str_to_int(output_text, &output) || output < 0) {
        return false;
    }
    *audio_device_id = device;
    *audio_output_id = output;
    *alsa_device = g_strdup_printf("device%d_output%d", device, output);
    return true;
}

bool choose_audio_output(gint32 *audio_output, char **alsa_device)
{
    const gint32 id = device_utils_find_suitable_id();
    if (!in_output_range(id)) {
        g_info("%sNo audiooutput was specified, could not find a suitable device.", "");
        return false;
    }
    *audio_output = id;
    *alsa_device = g_strdup_printf("audiosink%d", id);
    return true;
}

} // namespace

bool audio_clip_parse_options(const char *options, char **location, gint32 *volume, gint32 *repeat,
                              gint32 *audio_output, gint32 *audio_device_id,
                              gint32 *audio_output_id, char **alsa_device)
{
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
    *audio_output = -1;
    *audio_device_id = -1;
    *audio_output_id = -1;
    *alsa_device = nullptr;

    const char *output_text = get_option(table, "audiooutput");
    if (output_text) {
        return read_audio_output(output_text, audio_output, alsa_device);
    }
    const char *pair_device_text = get_option(table, "audiodeviceid");
    const char *pair_output_text = get_option(table, "audiooutputid");
    if (pair_device_text && pair_output_text) {
        return read_device_pair(pair_device_text, pair_output_text, audio_device_id,
                                audio_output_id, alsa_device);
    }
    return choose_audio_output(audio_output, alsa_device);
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
