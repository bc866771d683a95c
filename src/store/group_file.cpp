#include "sonobrik_group.h"

#include <cstring>

#include "autoptr.h"
#include "bus_text.h"
#include "json_utils.h"
#include "log_level.h"
#include "sonobrik_group_conf.h"

namespace
{

/* Returns true if the bus can carry every string and key in `value`, which may be null. */
bool json_can_be_sent(json_t *value)
{
    switch (value ? json_typeof(value) : JSON_NULL) {
    case JSON_STRING:
        return bus_text_is_valid(json_string_value(value));
    case JSON_ARRAY: {
        size_t i = 0;
        json_t *element = nullptr;
        json_array_foreach(value, i, element)
        {
            if (!json_can_be_sent(element)) {
                return false;
            }
        }
        return true;
    }
    case JSON_OBJECT: {
        const char *key = nullptr;
        json_t *member = nullptr;
        json_object_foreach(value, key, member)
        {
            if (!bus_text_is_valid(key) || !json_can_be_sent(member)) {
                return false;
            }
        }
        return true;
    }
    default:
        return true;
    }
}

/* Returns a new reference to the object to write to the record's file; null with a log line. */
json_t *sonobrik_group_json_pack(const SonobrikGroup *group)
{
    json_error_t error = {};
    g_autoptr(json_t) object =
        json_pack_ex(&error, 0, "{s:s, s:s, s:s, s:O}", "location", group->location, "name",
                     group->name, "type", group->type, "metadata", group->metadata);
    if (!object) {
        log_error("%s%s Failed to create object, error '%s'", "", "sonobrik_group_json_pack",
                  error.text);
        return nullptr;
    }
    const char *fault = sonobrik_group_get_fault(group);
    if (fault) {
        log_error("%s%s Failed to create object, error 'It %s'", "", "sonobrik_group_json_pack",
                  fault);
        return nullptr;
    }
    return g_steal_pointer(&object);
}

/* Returns a new record made from a file's document, without an index; null with a log line. */
SonobrikGroup *sonobrik_group_json_unpack(json_t *document)
{
    const char *location = json_string_value(json_object_get(document, "location"));
    const char *name = json_string_value(json_object_get(document, "name"));
    const char *type = json_string_value(json_object_get(document, "type"));
    json_error_t error = {};
    /* Names the fault. A listing reads thousands of files, and parsing the format takes longer. */
    if ((!location || !name || !type) &&
        json_unpack_ex(document, &error, 0, "{s:s, s:s, s:s}", "location", &location, "name", &name,
                       "type", &type) != 0) {
        log_error("%s%s Failed to unpack object, error '%s'", "", "sonobrik_group_json_unpack",
                  error.text);
        return nullptr;
    }
    /* These texts belong to the document, so the record gets copies. */
    auto *group = g_new0(SonobrikGroup, 1);
    group->location = g_strdup(location);
    group->name = g_strdup(name);
    group->type = g_strdup(type);
    group->metadata = json_incref(json_object_get(document, "metadata"));
    return group;
}

} // namespace

const char *sonobrik_group_get_fault(const SonobrikGroup *group)
{
    if (!group || !bus_text_is_valid(group->location) || !bus_text_is_valid(group->name) ||
        !bus_text_is_valid(group->type) || !json_can_be_sent(group->metadata)) {
        return "contains text that D-Bus cannot transmit";
    }
    if (strlen(group->location) > SONOBRIK_GROUP_LOCATION_MAX) {
        return "has a location of more than 4095 bytes";
    }
    if (strlen(group->name) > SONOBRIK_GROUP_NAME_MAX) {
        return "has a name of more than 255 bytes";
    }
    if (strlen(group->type) > SONOBRIK_GROUP_TYPE_MAX) {
        return "has a type of more than 255 bytes";
    }
    /* Writing the text to find out its length takes a tenth of the time of a listing. */
    if (json_utils_bound_size(group->metadata) > SONOBRIK_GROUP_METADATA_MAX &&
        json_dumpb(group->metadata, nullptr, 0, JSON_COMPACT | JSON_ENCODE_ANY) >
            SONOBRIK_GROUP_METADATA_MAX) {
        return "has metadata of more than 16384 bytes";
    }
    return nullptr;
}

bool sonobrik_group_save(SonobrikGroup *group)
{
    if (!sonobrik_group_valid_parameter(group)) {
        log_error("%s%s was called with an invalid 'param' argument", "", "sonobrik_group_save");
        return false;
    }
    if (!group->metadata) {
        group->metadata = json_object();
    }
    g_autoptr(json_t) object = sonobrik_group_json_pack(group);
    if (!object) {
        log_error("%s%s failed to pack json object", "", "sonobrik_group_save");
        return false;
    }
    g_autofree char *path = sonobrik_group_conf_get_file_path(group->index);
    if (!json_utils_save_to_file(path, object)) {
        log_error("%s%s failed to save json object", "", "sonobrik_group_save");
        return false;
    }
    return true;
}

SonobrikGroup *sonobrik_group_from_file(const char *path)
{
    if (!path) {
        g_warning("%s%s was called with invalid arguments", "", "sonobrik_group_from_file");
        return nullptr;
    }
    g_autoptr(json_t) document = json_utils_load_from_file(path);
    if (!document) {
        log_error("%s%s could not obtain json object from file '%s'", "",
                  "sonobrik_group_from_file", path);
        return nullptr;
    }
    g_autoptr(SonobrikGroup) group = sonobrik_group_json_unpack(document);
    if (!group) {
        g_warning("%s%s could not obtain a parameter object", "", "sonobrik_group_from_file");
        return nullptr;
    }
    group->index = sonobrik_group_conf_get_param_index(path);
    if (group->index < 0) {
        log_error("%sNo index value found in '%s'", "", path);
        return nullptr;
    }
    return g_steal_pointer(&group);
}
