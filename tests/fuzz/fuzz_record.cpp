/* Fuzzes the parser of a clip's record file, which other programs may have written. */

#include <glib.h>
#include <glib/gstdio.h>

#include "fake_platform.h"
#include "fuzz_input.h"
#include "group_conf_directory.h"
#include "sonobrik_group.h"

static std::string folder;
static std::string record_path;
static std::string copy_path;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    folder = fuzz_input_setup("record");
    record_path = folder + "/M0.json";
    copy_path = folder + "/M1.json";
    sonobrik_group_conf_reset(folder.c_str());
    fake_platform.parameter = "10";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input_write(record_path, data, size);
    g_autoptr(SonobrikGroup) record = sonobrik_group_from_file(record_path.c_str());
    fake_platform.written.clear();
    fake_platform.written_mode.clear();
    if (!record) {
        return 0;
    }
    g_assert(sonobrik_group_get_index(record) == 0);
    g_assert(sonobrik_group_valid_parameter(record));

    /* A saved record must read back unchanged; a failed save must leave no file. */
    record->index = 1;
    g_unlink(copy_path.c_str());
    const bool saved = sonobrik_group_save(record);
    g_assert(saved == (g_access(copy_path.c_str(), 0) == 0));
    if (saved) {
        g_autoptr(SonobrikGroup) copy = sonobrik_group_from_file(copy_path.c_str());
        g_assert(copy && sonobrik_group_get_index(copy) == 1);
        g_assert_cmpstr(copy->location, ==, record->location);
        g_assert_cmpstr(copy->name, ==, record->name);
        g_assert_cmpstr(copy->type, ==, record->type);
        g_assert(json_equal(copy->metadata, record->metadata));
    }
    return 0;
}
