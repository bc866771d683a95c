/* A clip record's file, which may have been written by anybody who may write there. */

#include <glib.h>
#include <glib/gstdio.h>

#include "fake_platform.h"
#include "fuzz_input.h"
#include "sonobrik_group.h"

static constexpr const char *RECORD = SONOBRIK_GROUP_DIRECTORY "/M0.json";
static constexpr const char *COPY = SONOBRIK_GROUP_DIRECTORY "/M1.json";

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_input_setup();
    fake_platform.parameter = "10";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input_write(RECORD, data, size);
    g_autoptr(SonobrikGroup) record = sonobrik_group_from_file(RECORD);
    fake_platform.written.clear();
    fake_platform.written_mode.clear();
    if (!record) {
        return 0;
    }
    g_assert(sonobrik_group_get_index(record) == 0);
    g_assert(sonobrik_group_valid_parameter(record));

    /* What can be saved is read again as it was; what cannot leaves nothing. */
    record->index = 1;
    g_unlink(COPY);
    const bool saved = sonobrik_group_save(record);
    g_assert(saved == (g_access(COPY, 0) == 0));
    if (saved) {
        g_autoptr(SonobrikGroup) copy = sonobrik_group_from_file(COPY);
        g_assert(copy && sonobrik_group_get_index(copy) == 1);
        g_assert_cmpstr(copy->location, ==, record->location);
        g_assert_cmpstr(copy->name, ==, record->name);
        g_assert_cmpstr(copy->type, ==, record->type);
        g_assert(json_equal(copy->metadata, record->metadata));
    }
    return 0;
}
