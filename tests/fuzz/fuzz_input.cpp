#include "fuzz_input.h"

#include <cstdio>
#include <glib.h>
#include <glib/gstdio.h>

std::string fuzz_input_setup(const char *name)
{
    g_log_set_default_handler([](const char *, GLogLevelFlags, const char *, gpointer) {}, nullptr);
    const std::string folder = std::string(FUZZ_FOLDER "/") + name;
    g_assert(g_mkdir_with_parents(folder.c_str(), 0755) == 0);
    return folder;
}

void fuzz_input_write(const std::string &path, const uint8_t *data, size_t size)
{
    /* Some file systems flush a file that is truncated and rewritten; a new file is faster. */
    g_unlink(path.c_str());
    FILE *file = fopen(path.c_str(), "wb");
    g_assert(file);
    g_assert(fwrite(data, 1, size, file) == size);
    g_assert(fclose(file) == 0);
}
