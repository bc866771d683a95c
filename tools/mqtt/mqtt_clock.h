#pragma once

/* The machine's clock, and the kernel's estimate of its error. */

#include <glib.h>
#include <jansson.h>

struct MqttClock {
    bool is_known = false;        /* the kernel answered */
    bool is_synchronized = false; /* by NTP or PTP */
    gint64 estimated_error = 0;   /* microseconds */
    gint64 maximum_error = 0;
};

/* Returns Unix time in milliseconds. */
gint64 mqtt_clock_now(void);

/* Returns the milliseconds since the boot, including the time in which the machine slept. */
gint64 mqtt_clock_boot(void);

MqttClock mqtt_clock_read(void);

/* Returns the object "clock" of an answer, or a JSON null if nothing is known. */
json_t *mqtt_clock_describe(const MqttClock &clock);
