#include "mqtt_clock.h"

#include <ctime>
#include <sys/timex.h>

namespace
{

gint64 read_milliseconds(clockid_t id)
{
    timespec time = {};
    clock_gettime(id, &time);
    return static_cast<gint64>(time.tv_sec) * 1000 + time.tv_nsec / 1'000'000;
}

json_t *make_milliseconds(gint64 microseconds)
{
    return json_real(static_cast<double>(microseconds) / 1000);
}

} // namespace

gint64 mqtt_clock_now(void)
{
    return read_milliseconds(CLOCK_REALTIME);
}

gint64 mqtt_clock_boot(void)
{
    return read_milliseconds(CLOCK_BOOTTIME);
}

MqttClock mqtt_clock_read(void)
{
    timex values = {}; /* no mode: it only reads */
    const int state = adjtimex(&values);
    if (state < 0) {
        return {};
    }
    return {
        .is_known = true,
        .is_synchronized = state != TIME_ERROR && (values.status & STA_UNSYNC) == 0,
        .estimated_error = values.esterror,
        .maximum_error = values.maxerror,
    };
}

json_t *mqtt_clock_describe(const MqttClock &clock)
{
    if (!clock.is_known) {
        return json_null();
    }
    json_t *object = json_object();
    json_object_set_new(object, "synchronized", json_boolean(clock.is_synchronized));
    /* The kernel's errors only mean something while a program corrects the clock. */
    json_object_set_new(object, "errorMs",
                        clock.is_synchronized ? make_milliseconds(clock.estimated_error)
                                              : json_null());
    json_object_set_new(object, "maxErrorMs",
                        clock.is_synchronized ? make_milliseconds(clock.maximum_error)
                                              : json_null());
    return object;
}
