#include "platform/param.h"

#include <errno.h>
#include <optional>
#include <string>
#include <string_view>

#include "config_file.h"
#include "param_file.h"

static const char *parameters_file = SONOBRIK_SYSCONFDIR "/vesk/parameters.conf";

/* Removes blanks at both ends. A carriage return is a blank too: Windows editors end lines with it.
 */
static std::string_view trim(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return text.substr(0, 0);
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/* Returns the value if `line` sets the parameter `name`. */
static std::optional<std::string_view> match_line(std::string_view line, std::string_view name)
{
    line = trim(line);
    const size_t equals = line.find('=');
    /* The value is returned as a C string, which a NUL would truncate, so such a line is skipped.
     */
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

/* Returns the value of `name`; the last line that sets it wins. */
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
    if (const int error = config_file_read(parameters_file, &content)) {
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
