#include "control_conf.h"

#include <algorithm>
#include <glib.h>

#include "control_text.h"

namespace
{

constexpr std::string_view MATCHES[] = {"serial", "path", "card"}; /* by ControlMatch */

std::string_view strip(std::string_view text)
{
    const size_t start = text.find_first_not_of(" \t\r");
    const size_t end = text.find_last_not_of(" \t\r");
    return start == text.npos ? "" : text.substr(start, end - start + 1);
}

/* Splits "KEY=VALUE". Returns false without a "=". */
bool split(std::string_view line, std::string_view *key, std::string_view *value)
{
    const size_t sign = line.find('=');
    if (sign == line.npos) {
        return false;
    }
    *key = strip(line.substr(0, sign));
    *value = strip(line.substr(sign + 1));
    return true;
}

/* The readers of a line return what is wrong with it, or an empty text. */

constexpr const char *KEY_TWICE = "this key occurs twice in the section";

std::string read_number(std::string_view value, ControlConf *conf)
{
    guint64 number = 0;
    if (value.find('\0') != value.npos ||
        !g_ascii_string_to_unsigned(std::string(value).c_str(), 10, 0, CONTROL_CONF_MAX_NUMBER,
                                    &number, nullptr)) {
        return "the number must be 0 to " + std::to_string(CONTROL_CONF_MAX_NUMBER);
    }
    const auto has_number = [number](const ControlRule &rule) {
        return rule.number == static_cast<int>(number);
    };
    if (conf->back().number) {
        return KEY_TWICE;
    }
    if (std::ranges::any_of(*conf, has_number)) {
        return "two sections have number " + std::to_string(number);
    }
    conf->back().number = static_cast<int>(number);
    return "";
}

std::string read_name(std::string_view value, ControlConf *conf)
{
    if (value.empty() || control_text_clean(value) != value) {
        return "a name has 1 to 255 bytes without control characters";
    }
    if (conf->back().name) {
        return KEY_TWICE;
    }
    conf->back().name = value;
    return "";
}

std::string read_leave_out(std::string_view value, ControlConf *conf)
{
    if (value != "yes" && value != "no") {
        return "leave-out must be yes or no";
    }
    if (conf->back().leave_out) {
        return KEY_TWICE;
    }
    conf->back().leave_out = value == "yes";
    return "";
}

std::string read_section(std::string_view line, ControlConf *conf)
{
    std::string_view match;
    std::string_view value;
    if (!line.ends_with(']') || !split(line.substr(1, line.size() - 2), &match, &value)) {
        return "a section is [serial=...], [path=...] or [card=...]";
    }
    const auto *known = std::ranges::find(MATCHES, match);
    if (known == std::end(MATCHES) || value.empty()) {
        return "a section is [serial=...], [path=...] or [card=...]";
    }
    /* The service knows cards by clean texts only, so another one would match no card. */
    if (control_text_clean(value) != value) {
        return "the text of a section has 1 to 255 bytes without control characters";
    }
    ControlRule rule = {.match = static_cast<ControlMatch>(known - std::begin(MATCHES)),
                        .value = std::string(value),
                        .number = {},
                        .name = {},
                        .leave_out = {}};
    if (std::ranges::any_of(*conf, [&rule](const ControlRule &other) {
            return other.match == rule.match && other.value == rule.value;
        })) {
        return "this section occurs twice";
    }
    conf->push_back(std::move(rule));
    return "";
}

std::string read_key(std::string_view line, ControlConf *conf)
{
    constexpr struct {
        std::string_view name;
        std::string (*read)(std::string_view value, ControlConf *conf);
    } keys[] = {
        {"leave-out", read_leave_out},
        {"name", read_name},
        {"number", read_number},
    };
    std::string_view name;
    std::string_view value;
    if (!split(line, &name, &value)) {
        return "neither a section nor KEY=VALUE";
    }
    if (conf->empty()) {
        return "a key must be below a section";
    }
    const auto *key = std::ranges::find(keys, name, [](const auto &entry) { return entry.name; });
    return key == std::end(keys) ? "the keys are number, name and leave-out"
                                 : key->read(value, conf);
}

std::string read_line(std::string_view line, ControlConf *conf)
{
    line = strip(line);
    if (line.empty() || line.starts_with('#')) {
        return "";
    }
    return line.starts_with('[') ? read_section(line, conf) : read_key(line, conf);
}

/* Sets the values that `target` does not have yet. */
void add_rule(const ControlRule &rule, ControlRule *target)
{
    target->number = target->number ? target->number : rule.number;
    target->name = target->name ? target->name : rule.name;
    target->leave_out = target->leave_out ? target->leave_out : rule.leave_out;
}

} // namespace

bool control_conf_parse(std::string_view text, ControlConf *conf, std::string *mistake)
{
    conf->clear();
    for (int number = 1; !text.empty(); number++) {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string reason = read_line(text.substr(0, end), conf);
        if (!reason.empty()) {
            conf->clear();
            *mistake = std::to_string(number) + ": " + reason;
            return false;
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return true;
}

ControlRule control_conf_find(const ControlConf &conf, const std::string &serial,
                              const std::string &path, const std::string &card_id)
{
    ControlRule result = {};
    const std::string *const values[] = {&serial, &path, &card_id}; /* by ControlMatch */
    for (const ControlMatch match :
         {CONTROL_MATCH_SERIAL, CONTROL_MATCH_PATH, CONTROL_MATCH_CARD}) {
        for (const ControlRule &rule : conf) {
            if (rule.match == match && rule.value == *values[match]) {
                add_rule(rule, &result);
            }
        }
    }
    return result;
}
