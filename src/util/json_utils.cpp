#include "json_utils.h"

#include <cstring>
#include <glib.h>
#include <sys/stat.h>

#include "autoptr.h"
#include "platform/util.h"

namespace
{

constexpr mode_t FILE_MODE = 0644;

/*
 * Could reading `path` go on for ever? A FIFO without a writer would hold the main loop, a device
 * may never end.
 */
bool may_never_end(const char *path)
{
    struct stat status;
    return stat(path, &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

} // namespace

json_t *json_utils_load_from_file(const char *path)
{
    if (!path) {
        return nullptr;
    }
    if (may_never_end(path)) {
        g_warning("%sFailed to load JSON, line %d error '%s'", "", -1, "not a regular file");
        return nullptr;
    }
    json_error_t error;
    json_t *value = json_load_file(path, 0, &error);
    if (!value) {
        g_warning("%sFailed to load JSON, line %d error '%s'", "", error.line, error.text);
    }
    return value;
}

bool json_utils_save_to_file(const char *path, const json_t *value)
{
    if (!path || !value) {
        return false;
    }
    g_auto(JsonText) text = json_dumps(value, JSON_INDENT(2));
    if (!text || *text == '\0') {
        return false;
    }
    if (!util_write_file_synced(path, text, strlen(text), FILE_MODE)) {
        g_warning("%s%s failed to save json data to file '%s'", "", "json_utils_save_to_file",
                  path);
        return false;
    }
    return true;
}
