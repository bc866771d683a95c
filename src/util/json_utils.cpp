#include "json_utils.h"

#include <cerrno>
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
    int fd;
    size_t left; /* how many bytes may still be read */
};

/* To Jansson, an error is the end of the file, as it was with fread(). */
size_t read_input(void *buffer, size_t size, void *data)
{
    auto *input = static_cast<Input *>(data);
    ssize_t count = 0;
    do {
        count = read(input->fd, buffer, MIN(size, input->left));
    } while (count < 0 && errno == EINTR);
    if (count <= 0) {
        return 0;
    }
    input->left -= static_cast<size_t>(count);
    return static_cast<size_t>(count);
}

/* Returns a new reference, or null with line and text of `error` set. */
json_t *load(const char *path, json_error_t *error)
{
    const int fd = file_utils_open_regular(path, O_RDONLY);
    if (fd == -1) {
        describe_open_error(path, errno, error);
        return nullptr;
    }
    /* json_loadfd() would read byte by byte, and a FILE would cost two calls of the system more. */
    Input input = {.fd = fd, .left = JSON_UTILS_FILE_MAX + 1};
    g_autoptr(json_t) value = json_load_callback(read_input, &input, 0, error);
    close(fd);
    if (input.left == 0) {
        error->line = -1;
        g_snprintf(error->text, sizeof(error->text), "more than %zu bytes", JSON_UTILS_FILE_MAX);
        return nullptr;
    }
    return g_steal_pointer(&value);
}

/* Returns at least the length of the text's JSON string, with the quotes. */
size_t bound_string(const char *text, size_t length)
{
    constexpr size_t longest_escape = sizeof("\\u0000") - 1;
    size_t bound = length + 2;
    for (const char *p = text; p != text + length; p++) {
        if (static_cast<unsigned char>(*p) < 0x20 || *p == '"' || *p == '\\') {
            bound += longest_escape - 1;
        }
    }
    return bound;
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

size_t json_utils_bound_size(json_t *value)
{
    constexpr size_t longest_number = 32; /* 64-bit integers and "%.17g" are shorter */
    size_t bound = 2;                     /* the brackets */
    switch (value ? json_typeof(value) : JSON_NULL) {
    case JSON_STRING:
        return bound_string(json_string_value(value), json_string_length(value));
    case JSON_ARRAY: {
        size_t i = 0;
        json_t *element = nullptr;
        json_array_foreach(value, i, element)
        {
            bound += json_utils_bound_size(element) + 1;
        }
        return bound;
    }
    case JSON_OBJECT: {
        const char *key = nullptr;
        json_t *member = nullptr;
        json_object_foreach(value, key, member)
        {
            bound += bound_string(key, strlen(key)) + json_utils_bound_size(member) + 2;
        }
        return bound;
    }
    default:
        return longest_number;
    }
}
