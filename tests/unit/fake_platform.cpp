#include "fake_platform.h"

#include <charconv>
#include <cstring>
#include <glib.h>

#include "parameter.h"
#include "platform/util.h"

FakePlatform fake_platform;

char *get_parameter(const char *name)
{
    fake_platform.parameters_read.emplace_back(name);
    return fake_platform.parameter ? g_strdup(fake_platform.parameter->c_str()) : nullptr;
}

int util_str_to_int(const char *text, int32_t *value)
{
    if (!text || !value) {
        return 0;
    }
    int32_t number = 0;
    const char *end = text + strlen(text);
    const auto [stop, error] = std::from_chars(text, end, number);
    if (error != std::errc{} || stop != end) {
        return 0;
    }
    *value = number;
    return 1;
}

char *util_str_extract(const char *text, const char *prefix, const char *suffix)
{
    if (!text || !prefix || !suffix || !g_str_has_prefix(text, prefix) ||
        !g_str_has_suffix(text + strlen(prefix), suffix)) {
        return nullptr;
    }
    const char *inside = text + strlen(prefix);
    return g_strndup(inside, strlen(inside) - strlen(suffix));
}

int util_write_file_synced(const char *path, const char *text, size_t length, mode_t mode)
{
    fake_platform.written.emplace_back(path);
    fake_platform.written_mode.push_back(mode);
    return !fake_platform.write_fails &&
           g_file_set_contents(path, text, static_cast<gssize>(length), nullptr);
}
