#include "platform/param.h"

#include <errno.h>
#include <fcntl.h>
#include <optional>
#include <string>
#include <string_view>
#include <unistd.h>

#include "param_file.h"

static const char *parameters_file = "/etc/vesk/parameters.conf";

/* Far beyond any real list of parameters; keeps a device node or a mistake from filling memory. */
static constexpr size_t MAX_FILE_SIZE = 1024 * 1024;

/* Reads all that `fd` holds. Returns 0 or an errno value. */
static int read_all(int fd, std::string *content)
{
    char buffer[4096];
    for (;;) {
        const ssize_t count = read(fd, buffer, sizeof buffer);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        if (count == 0) {
            return 0;
        }
        if (content->size() + static_cast<size_t>(count) > MAX_FILE_SIZE) {
            return EFBIG;
        }
        content->append(buffer, static_cast<size_t>(count));
    }
}

static int read_file(const char *path, std::string *content)
{
    /* O_NONBLOCK: a FIFO in the file's place must not hold the caller. */
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return errno;
    }
    const int error = read_all(fd, content);
    close(fd);
    return error;
}

/* A carriage return counts as blank, so that a file written elsewhere reads alike. */
static std::string_view trim(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return text.substr(0, 0);
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/* The value that `line` gives to `name`, if it does. */
static std::optional<std::string_view> match_line(std::string_view line, std::string_view name)
{
    line = trim(line);
    const size_t equals = line.find('=');
    /* A value is handed out as a C string: a line with a NUL would come out shorter than it is. */
    if (line.starts_with('#') || equals == std::string_view::npos ||
        line.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view line_name = trim(line.substr(0, equals));
    if (line_name.empty() || line_name != name) {
        return std::nullopt;
    }
    return trim(line.substr(equals + 1));
}

static std::optional<std::string_view> find_value(std::string_view content, std::string_view name)
{
    std::optional<std::string_view> found;
    while (!content.empty()) {
        const size_t length = content.find('\n');
        if (const auto value = match_line(content.substr(0, length), name)) {
            found = value;
        }
        content.remove_prefix(length == std::string_view::npos ? content.size() : length + 1);
    }
    return found;
}

void param_reset_options(struct ParamOptions *options)
{
    if (options) {
        *options = {};
    }
}

char *param_get(const char *name, const struct ParamOptions *options, int *error_code)
{
    if (!error_code) {
        return nullptr;
    }
    if (!name || !options) {
        *error_code = EINVAL;
        return nullptr;
    }
    std::string content;
    if (const int error = read_file(parameters_file, &content)) {
        *error_code = error;
        return nullptr;
    }
    const auto value = find_value(content, name);
    if (!value) {
        *error_code = ENOENT;
        return nullptr;
    }
    return g_strndup(value->data(), value->size());
}

void param_set_file(const char *path)
{
    parameters_file = path;
}
