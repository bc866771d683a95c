#include "sonobrik_group_metadata.h"

#include <string>

#include "autoptr.h"
#include "bus_budget.h"
#include "discover_media_metadata.h"
#include "json_utils.h"
#include "log_level.h"
#include "service_frame.h"

namespace
{

/* Returns a new reference to the metadata as a record stores it; null with a log line. */
json_t *pack_metadata(const discover_media_metadata *m)
{
    json_t *media_types = discover_media_metadata_get_media_types(m);
    const json_int_t size = discover_media_metadata_get_media_size_kb(m);
    const json_int_t duration = discover_media_metadata_get_duration_ms(m);
    if (!media_types || size < 0 || duration < 0) {
        log_error("%sInvalid metadata, can not pack metadata", "");
        return nullptr;
    }
    json_error_t error = {};
    json_t *metadata = json_pack_ex(&error, 0, "{s:O, s:I, s:I}", "mediaTypes", media_types, "size",
                                    size, "duration", duration);
    if (!metadata) {
        log_error("%sFailed to create metadata object, error '%s'", "", error.text);
    }
    return metadata;
}

/* Computes the record's metadata and saves it. Returns false with a log line. */
bool compute_metadata(SonobrikGroup *group, GHashTable *memo)
{
    const char *location = sonobrik_group_get_location(group);
    if (!location) {
        return false;
    }
    g_autoptr(discover_media_metadata) m = discover_media_get_metadata_once(location, memo);
    if (!m) {
        g_warning("%sCould not get metadata for location: %s", "", location);
        return false;
    }
    json_t *metadata = pack_metadata(m);
    return metadata && sonobrik_group_set_media_metadata(group, metadata);
}

/* Returns an integer that the metadata owns, or null. */
const json_t *get_integer(const json_t *metadata, const char *key)
{
    const json_t *member = json_object_get(metadata, key);
    return json_is_integer(member) ? member : nullptr;
}

/* Returns -1 for null. */
json_int_t get_value(const json_t *integer)
{
    return integer ? json_integer_value(integer) : -1;
}

/* Returns a new reference to the object that describes the record to clients; null on failure. */
json_t *pack_reply(const SonobrikGroup *group)
{
    const json_t *metadata = sonobrik_group_get_media_metadata(group);
    g_autofree char *file_name = g_path_get_basename(sonobrik_group_get_location(group));
    const std::string index = std::to_string(sonobrik_group_get_index(group));

    json_t *media_types = json_object_get(metadata, "mediaTypes");
    if (!media_types) {
        g_warning("%s%s failed to obtain the media types of the media file", "",
                  "sonobrik_group_metadata");
    }
    const json_t *size = get_integer(metadata, "size");
    if (!size) {
        g_warning("%s%s failed to obtain the size of the media file", "",
                  "sonobrik_group_metadata");
    }
    const json_t *duration = get_integer(metadata, "duration");
    if (!duration) {
        g_warning("%s%s failed to obtain the duration of the media file", "",
                  "sonobrik_group_metadata");
    }

    json_error_t error = {};
    json_t *reply =
        json_pack_ex(&error, 0, "{s :{s:s, s:s, s:O, s:I, s:I}}", index.c_str(), "name",
                     sonobrik_group_get_name(group), "fileName", file_name, "mediaTypes",
                     media_types, "size", get_value(size), "duration", get_value(duration));
    if (!reply) {
        log_error("%sFailed to create parameter object, error '%s'", "", error.text);
    }
    return reply;
}

/* Does the same as sonobrik_group_metadata(), and inspects no file that `memo` knows. */
json_t *describe_group(SonobrikGroup *group, GHashTable *memo)
{
    if (!group) {
        return nullptr;
    }
    if (!sonobrik_group_metadata_valid(group) && !compute_metadata(group, memo)) {
        g_warning("%sFailed to create metadata for clip at location: %s", "",
                  sonobrik_group_get_location(group));
        return nullptr;
    }
    return pack_reply(group);
}

/* Called by Jansson: appends a part of a value's text to the GString `text`. */
int append_part(const char *part, size_t length, void *text)
{
    g_string_append_len(static_cast<GString *>(text), part, static_cast<gssize>(length));
    return 0;
}

/*
 * Appends the elements of `array` to the JSON array in `text`, which does not have its closing
 * bracket yet. On failure, returns false and may leave a part of them at the end of `text`.
 */
bool append_elements(GString *text, const json_t *array)
{
    if (text->str[text->len - 1] != '[') {
        g_string_append_c(text, ',');
    }
    return json_dump_callback(array, append_part, text, JSON_COMPACT | JSON_EMBED) == 0;
}

} // namespace

bool sonobrik_group_metadata_valid(const SonobrikGroup *group)
{
    json_t *metadata = sonobrik_group_get_media_metadata(group);
    if (!sonobrik_group_valid_parameter(group) || json_object_size(metadata) == 0) {
        return false;
    }
    if (json_object_get(metadata, "mediaTypes") && get_integer(metadata, "size") &&
        get_integer(metadata, "duration")) {
        return true;
    }
    /* Names the fault. */
    json_error_t error = {};
    if (json_unpack_ex(metadata, &error, JSON_VALIDATE_ONLY, "{s:O, s:I, s:I}", "mediaTypes",
                       "size", "duration") != 0) {
        log_error("%sThe metadata object is not valid, error '%s'", "", error.text);
        return false;
    }
    return true;
}

bool sonobrik_group_set_media_metadata(SonobrikGroup *group, json_t *metadata)
{
    if (!group || !metadata) {
        json_decref(metadata);
        return false;
    }
    sonobrik_group_clear_media_metadata(group);
    group->metadata = metadata;
    if (!sonobrik_group_metadata_valid(group)) {
        g_warning("%sReceived invalid metadata", "");
        return false;
    }
    if (!sonobrik_group_save(group)) {
        log_error("%sFailed to save valid media metadata", "");
        return false;
    }
    return true;
}

json_t *sonobrik_group_metadata(SonobrikGroup *group)
{
    return describe_group(group, nullptr);
}

char *sonobrik_group_get_metadata()
{
    /* Holds one object at a time, because a tree of all objects would not fit into the caches. */
    g_autoptr(json_t) array = json_array();
    if (!array) {
        return nullptr;
    }
    GString *text = g_string_new("[");
    g_autoptr(GHashTable) memo = discover_media_memo_new();
    GSList *groups = sonobrik_group_get_parameter_list();
    for (GSList *node = groups; node; node = node->next) {
        auto *group = static_cast<SonobrikGroup *>(node->data);
        sonobrik_feed_watchdog(); /* a damaged file takes seconds */
        json_t *metadata = describe_group(group, memo);
        if (!metadata) {
            log_error("%sCould not obtain metadata for clip at location: %s", "",
                      sonobrik_group_get_location(group));
            continue;
        }
        const gsize length = text->len;
        json_array_clear(array);
        if (json_array_append_new(array, metadata) != 0 || !append_elements(text, array)) {
            log_error("%sFailed to append metadata", "");
            g_string_truncate(text, length);
            continue;
        }
        if (text->len > BUS_BUDGET) {
            g_string_truncate(text, length);
            bus_budget_report(node, "the reply to GetMetadata");
            break;
        }
    }
    g_string_append_c(text, ']');
    sonobrik_group_release_parameter_list(&groups);
    return g_string_free(text, FALSE);
}
