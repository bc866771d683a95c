#pragma once

/* The log of sonobrik-mqtt: standard error, which systemd writes to the journal. */

#include <glib.h>
#include <syslog.h>

/* Logs a line at a level such as LOG_WARNING. Control characters are escaped. */
void mqtt_log(int level, const char *format, ...) G_GNUC_PRINTF(2, 3);

/* How often lines of one kind are logged. */
constexpr gint64 MQTT_LOG_INTERVAL = 60'000'000; /* microseconds */

struct MqttLogLimit {
    bool has_logged = false;
    gint64 last = 0; /* microseconds of any clock that does not jump */
    unsigned dropped = 0;
};

/* Returns true if a line may be logged now, and sets `dropped` to the number of lines that were
 * dropped since the last one. */
bool mqtt_log_limit_pass(MqttLogLimit *limit, gint64 now, unsigned *dropped);
