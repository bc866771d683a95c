#include "mqtt_log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "client_text.h"

namespace
{

const char *get_level_name(int level)
{
    return level <= LOG_ERR ? "error" : level == LOG_WARNING ? "warning" : "info";
}

} // namespace

void mqtt_log(int level, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    g_autofree char *text = g_strdup_vprintf(format, values);
    va_end(values);
    const std::string line = client_text_escape(text);
    /* The journal reads the level from the beginning of the line, and adds the name. */
    if (getenv("JOURNAL_STREAM")) {
        fprintf(stderr, "<%d>%s\n", level, line.c_str());
    } else {
        fprintf(stderr, "sonobrik-mqtt: %s: %s\n", get_level_name(level), line.c_str());
    }
}

bool mqtt_log_limit_pass(MqttLogLimit *limit, gint64 now, unsigned *dropped)
{
    if (limit->has_logged && now - limit->last < MQTT_LOG_INTERVAL) {
        limit->dropped++;
        return false;
    }
    *dropped = limit->dropped;
    *limit = {.has_logged = true, .last = now};
    return true;
}
