#include "fuzz_input.h"

#include <cstdio>
#include <glib.h>
#include <glib/gstdio.h>

void fuzz_input_setup()
{
    g_log_set_default_handler([](const char *, GLogLevelFlags, const char *, gpointer) {}, nullptr);
    g_assert(g_mkdir_with_parents(FUZZ_FOLDER, 0755) == 0);
}

void fuzz_input_write(const char *path, const uint8_t *data, size_t size)
{
    /* A file that is cut and written anew goes to the disk at once; a new one has time. */
    g_unlink(path);
    FILE *file = fopen(path, "wb");
    g_assert(file);
    g_assert(fwrite(data, 1, size, file) == size);
    g_assert(fclose(file) == 0);
}
