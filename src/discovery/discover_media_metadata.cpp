#include "discover_media_metadata.h"

#include "autoptr.h"
#include "discover_media.h"
#include "file_utils.h"

namespace
{

/* Fills the empty object `media_info` like discover_media(). */
bool describe_once(const char *path, GHashTable *memo, json_t *media_info)
{
    if (!path || !memo) {
        return discover_media(path, media_info);
    }
    gpointer known = nullptr; /* null for a file that could not be described */
    if (g_hash_table_lookup_extended(memo, path, nullptr, &known)) {
        return known && json_object_update(media_info, static_cast<json_t *>(known)) == 0;
    }
    const bool described = discover_media(path, media_info);
    g_hash_table_insert(memo, g_strdup(path), described ? json_incref(media_info) : nullptr);
    return described;
}

} // namespace

GHashTable *discover_media_memo_new()
{
    return g_hash_table_new_full(g_str_hash, g_str_equal, g_free, [](gpointer media_info) {
        json_decref(static_cast<json_t *>(media_info));
    });
}

discover_media_metadata *discover_media_get_metadata(const char *path)
{
    return discover_media_get_metadata_once(path, nullptr);
}

discover_media_metadata *discover_media_get_metadata_once(const char *path, GHashTable *memo)
{
    g_autoptr(json_t) media_info = json_object();
    g_autoptr(discover_media_metadata) m = g_new0(discover_media_metadata, 1);
    if (!media_info) {
        return nullptr;
    }
    if (!describe_once(path, memo, media_info)) {
        g_warning("%sCould not obtain media info for: %s", "", path);
        return nullptr;
    }
    json_int_t duration_ms = 0;
    if (json_unpack(media_info, "{s:I, s:O, s:O}", "duration", &duration_ms, "media_types",
                    &m->media_types, "properties", &m->properties) != 0) {
        g_warning("%sFailed to unpack media information", "");
        return nullptr;
    }
    m->duration_ms = duration_ms;
    m->media_size_kb = file_utils_get_file_size_kb(path);
    if (m->media_size_kb == -1) {
        return nullptr;
    }
    return g_steal_pointer(&m);
}

void discover_media_free_metadata(discover_media_metadata *m)
{
    if (!m) {
        return;
    }
    json_decref(g_steal_pointer(&m->media_types));
    json_decref(g_steal_pointer(&m->properties));
    g_free(m);
}

json_t *discover_media_metadata_get_media_types(const discover_media_metadata *m)
{
    return m ? m->media_types : nullptr;
}

json_t *discover_media_metadata_get_properties(const discover_media_metadata *m)
{
    return m ? m->properties : nullptr;
}

gint64 discover_media_metadata_get_duration_ms(const discover_media_metadata *m)
{
    return m ? m->duration_ms : -1;
}

gint64 discover_media_metadata_get_media_size_kb(const discover_media_metadata *m)
{
    return m ? m->media_size_kb : -1;
}
