#include "mqtt_json.h"

#include <cmath>

#include "autoptr.h"

/* Beyond this, not every integer is a double. */
constexpr double MAX_EXACT = 9007199254740992.0;

bool mqtt_json_read_integer(const json_t *value, gint64 *number)
{
    if (json_is_integer(value)) {
        *number = json_integer_value(value);
        return true;
    }
    if (!json_is_real(value)) {
        return false;
    }
    const double real = json_real_value(value);
    if (std::trunc(real) != real || std::abs(real) > MAX_EXACT) {
        return false;
    }
    *number = static_cast<gint64>(real);
    return true;
}

std::string mqtt_json_write(json_t *value)
{
    g_autoptr(json_t) owned = value;
    g_auto(JsonText) text = json_dumps(owned, JSON_COMPACT);
    return text ? text : "";
}

std::string mqtt_json_get_text(const json_t *object, const char *key)
{
    const char *text = json_string_value(json_object_get(object, key));
    return text ? text : "";
}

gint64 mqtt_json_get_integer(const json_t *object, const char *key, gint64 fallback)
{
    gint64 number = 0;
    return mqtt_json_read_integer(json_object_get(object, key), &number) ? number : fallback;
}

json_t *mqtt_json_text(const std::string &text)
{
    g_autofree char *valid = g_utf8_make_valid(text.c_str(), -1);
    return json_string(valid);
}
