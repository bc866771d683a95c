#include "fake_platform.h"

#include <glib.h>
#include <sys/types.h>

#include "parameter.h"

FakePlatform fake_platform;

char *get_parameter(const char *name)
{
    fake_platform.parameters_read.emplace_back(name);
    return fake_platform.parameter ? g_strdup(fake_platform.parameter->c_str()) : nullptr;
}

extern "C" int __wrap_util_write_file_synced(const char *path, const char *text, size_t length,
                                             mode_t mode)
{
    fake_platform.written.emplace_back(path);
    fake_platform.written_mode.push_back(mode);
    return !fake_platform.write_fails &&
           g_file_set_contents(path, text, static_cast<gssize>(length), nullptr);
}
