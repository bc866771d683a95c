#include "json_utils.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "autoptr.h"
#include "file_utils.h"
#include "platform/util.h"

namespace
{

constexpr mode_t FILE_MODE = 0644;

/*
 * Describes why the file could not be opened. The line and the text are those of json_load_file(),
 * except for ENXIO, our errno for files that are not regular.
 */
void describe_open_error(const char *path, int error_number, json_error_t *error)
{
    if (error_number == EISDIR) {
        /* To json_load_file(), a directory is a file without content. */
        json_t *value = json_loads("", 0, error);
        json_decref(value);
        return;
    }
    error->line = -1;
    if (error_number == ENXIO) {
        g_strlcpy(error->text, "not a regular file", sizeof(error->text));
        return;
    }
    /* Jansson keeps the last byte of the text for an error code. */
    g_snprintf(error->text, sizeof(error->text) - 1, "unable to open %s: %s", path,
               strerror(error_number));
}

struct Input {
    FILE *file;
    size_t left; /* how many bytes may still be read */
};

size_t read_input(void *buffer, size_t size, void *data)
{
    auto *input = static_cast<Input *>(data);
    const size_t count = fread(buffer, 1, MIN(size, input->left), input->file);
    input->left -= count;
    return count;
}

/* Returns a new reference, or null with line and text of `error` set. */
json_t *load(const char *path, json_error_t *error)
{
    const int fd = file_utils_open_regular(path, O_RDONLY);
    if (fd == -1) {
        describe_open_error(path, errno, error);
        return nullptr;
    }
    /* json_loadfd() would read byte by byte. */
    FILE *file = fdopen(fd, "rb");
    if (!file) {
        describe_open_error(path, errno, error);
        close(fd);
        return nullptr;
    }
    Input input = {.file = file, .left = JSON_UTILS_FILE_MAX + 1};
    g_autoptr(json_t) value = json_load_callback(read_input, &input, 0, error);
    fclose(file);
    if (input.left == 0) {
        error->line = -1;
        g_snprintf(error->text, sizeof(error->text), "more than %zu bytes", JSON_UTILS_FILE_MAX);
        return nullptr;
    }
    return g_steal_pointer(&value);
}

} // namespace

json_t *json_utils_load_from_file(const char *path)
{
    if (!path) {
        return nullptr;
    }
    json_error_t error;
    json_t *value = load(path, &error);
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
