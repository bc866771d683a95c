#include "fake_discovery.h"

#include "discover_media_metadata.h"
#include "fake_service_frame.h"

FakeDiscovery discovery;

discover_media_metadata *discover_media_get_metadata(const char *path)
{
    discovery.inspected.emplace_back(path);
    discovery.feeds.push_back(watchdog_feeds);
    const auto found = discovery.found.find(path);
    if (found == discovery.found.end()) {
        return nullptr;
    }
    const Description &description = found->second;
    auto *m = g_new0(discover_media_metadata, 1);
    m->media_types =
        description.media_types ? json_loads(description.media_types, 0, nullptr) : nullptr;
    m->duration_ms = description.duration;
    m->media_size_kb = description.size;
    discovery.handles++;
    return m;
}

GHashTable *discover_media_memo_new()
{
    return g_hash_table_new(g_str_hash, g_str_equal);
}

discover_media_metadata *discover_media_get_metadata_once(const char *path, GHashTable *memo)
{
    discovery.memos.push_back(memo);
    return discover_media_get_metadata(path);
}

void discover_media_free_metadata(discover_media_metadata *m)
{
    discovery.handles--;
    json_decref(m->media_types);
    g_free(m);
}

json_t *discover_media_metadata_get_media_types(const discover_media_metadata *m)
{
    return m->media_types;
}

gint64 discover_media_metadata_get_duration_ms(const discover_media_metadata *m)
{
    return m->duration_ms;
}

gint64 discover_media_metadata_get_media_size_kb(const discover_media_metadata *m)
{
    return m->media_size_kb;
}
