#include "sonobrik_group.h"

namespace
{

bool replace_text(char **field, const char *text)
{
    if (!text) {
        return false;
    }
    /* Copied before the old text is freed, because `text` may point to it. */
    char *copy = g_strdup(text);
    g_free(*field);
    *field = copy;
    return true;
}

} // namespace

gint32 sonobrik_group_get_index(const SonobrikGroup *group)
{
    return group ? group->index : -1;
}

const char *sonobrik_group_get_location(const SonobrikGroup *group)
{
    return group ? group->location : nullptr;
}

const char *sonobrik_group_get_name(const SonobrikGroup *group)
{
    return group ? group->name : nullptr;
}

const char *sonobrik_group_get_type(const SonobrikGroup *group)
{
    return group ? group->type : nullptr;
}

json_t *sonobrik_group_get_media_metadata(const SonobrikGroup *group)
{
    return group ? group->metadata : nullptr;
}

void sonobrik_group_clear_media_metadata(SonobrikGroup *group)
{
    if (group) {
        json_decref(g_steal_pointer(&group->metadata));
    }
}

bool sonobrik_group_set_location(SonobrikGroup *group, const char *text)
{
    if (!group || !replace_text(&group->location, text)) {
        return false;
    }
    sonobrik_group_clear_media_metadata(group);
    group->metadata = json_object();
    return true;
}

bool sonobrik_group_set_name(SonobrikGroup *group, const char *text)
{
    return group && replace_text(&group->name, text);
}

bool sonobrik_group_set_type(SonobrikGroup *group, const char *text)
{
    return group && replace_text(&group->type, text);
}

bool sonobrik_group_valid_parameter(const SonobrikGroup *group)
{
    return group && group->location && group->name && group->type;
}

void sonobrik_group_free(SonobrikGroup *group)
{
    if (!group) {
        return;
    }
    sonobrik_group_clear_media_metadata(group);
    g_free(group->location);
    g_free(group->name);
    g_free(group->type);
    g_free(group);
}
