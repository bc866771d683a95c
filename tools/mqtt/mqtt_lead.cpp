#include "mqtt_lead.h"

#include <algorithm>

void mqtt_lead_add(MqttLead *lead, gint64 duration)
{
    lead->calls[lead->count % MQTT_LEAD_CALLS] = duration;
    lead->count++;
}

gint64 mqtt_lead_get(const MqttLead &lead)
{
    const size_t count = std::min(lead.count, MQTT_LEAD_CALLS);
    if (count == 0) {
        return lead.configured;
    }
    std::array<gint64, MQTT_LEAD_CALLS> sorted = lead.calls;
    std::sort(sorted.begin(), sorted.begin() + count);
    return std::max<gint64>(0, lead.configured + sorted[count / 2] - MQTT_LEAD_CALL);
}

MqttDue mqtt_lead_decide(gint64 at, gint64 now, gint64 lead, gint64 grace)
{
    if (now - at > grace) {
        return MQTT_DUE_LATE;
    }
    if (at - now > MQTT_MAX_WAIT) {
        return MQTT_DUE_FAR;
    }
    return at - now > lead ? MQTT_DUE_WAIT : MQTT_DUE_NOW;
}
