#include "fake_discover_media.h"

decltype(&discover_media) fake_discover_media;

bool discover_media(const char *path, json_t *media_info)
{
    return fake_discover_media(path, media_info);
}
