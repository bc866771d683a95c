#include "mqtt_pause.h"

#include <algorithm>

gint64 mqtt_pause_next(MqttPause *pause, double chance)
{
    const gint64 half = pause->limit / 2;
    const gint64 next = half + static_cast<gint64>(chance * static_cast<double>(half));
    pause->limit = std::min(pause->limit * 2, MQTT_PAUSE_MAX);
    return next;
}

void mqtt_pause_reset(MqttPause *pause)
{
    pause->limit = MQTT_PAUSE_FIRST;
}
