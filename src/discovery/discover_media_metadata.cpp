#include "discover_media_metadata.h"

#include "autoptr.h"
#include "discover_media.h"
#include "file_utils.h"

discover_media_metadata *discover_media_get_metadata(const char *path)
{
    g_autoptr(json_t) media_info = json_object();
    g_autoptr(discover_media_metadata) m = g_new0(discover_media_metadata, 1);
    if (!media_info) {
        return nullptr;
    }
    if (!discover_media(path, media_info)) {
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
