#include "mqtt_lead.h"

#include <gtest/gtest.h>

#include "mqtt_log.h"
#include "mqtt_memory.h"
#include "mqtt_pause.h"

namespace
{

constexpr gint64 HOUR = 3'600'000;

TEST(MqttLead, IsTheConfiguredOneBeforeTheFirstCall)
{
    EXPECT_EQ(mqtt_lead_get({.configured = 140'000}), 140'000);
}

TEST(MqttLead, FollowsTheMedianOfTheLastCalls)
{
    MqttLead lead = {.configured = 140'000};
    for (const gint64 duration : {10'000, 900'000, 20'000}) {
        mqtt_lead_add(&lead, duration);
    }
    EXPECT_EQ(mqtt_lead_get(lead), 140'000 + 20'000 - MQTT_LEAD_CALL);
    for (size_t i = 0; i < MQTT_LEAD_CALLS; i++) {
        mqtt_lead_add(&lead, 50'000);
    }
    EXPECT_EQ(mqtt_lead_get(lead), 140'000 + 50'000 - MQTT_LEAD_CALL);
}

TEST(MqttLead, IsNeverNegative)
{
    MqttLead lead = {.configured = 0};
    mqtt_lead_add(&lead, 0);
    EXPECT_EQ(mqtt_lead_get(lead), 0);
}

TEST(MqttLead, DecidesByTheTime)
{
    const gint64 now = 1'795'000'000'000;
    EXPECT_EQ(mqtt_lead_decide(now + 141, now, 140, 5000), MQTT_DUE_WAIT);
    EXPECT_EQ(mqtt_lead_decide(now + 140, now, 140, 5000), MQTT_DUE_NOW);
    EXPECT_EQ(mqtt_lead_decide(now - 5000, now, 140, 5000), MQTT_DUE_NOW);
    EXPECT_EQ(mqtt_lead_decide(now - 5001, now, 140, 5000), MQTT_DUE_LATE);
    EXPECT_EQ(mqtt_lead_decide(now - HOUR, now, 140, 5000), MQTT_DUE_LATE);
    EXPECT_EQ(mqtt_lead_decide(0, now, 140, 5000), MQTT_DUE_LATE);
    EXPECT_EQ(mqtt_lead_decide(now + MQTT_MAX_WAIT, now, 140, 5000), MQTT_DUE_WAIT);
    EXPECT_EQ(mqtt_lead_decide(now + MQTT_MAX_WAIT + 1, now, 140, 5000), MQTT_DUE_FAR);
}

TEST(MqttMemory, KnowsWhatItWasTold)
{
    MqttMemory memory;
    mqtt_memory_add(&memory, "a", 1000);
    EXPECT_TRUE(mqtt_memory_has(memory, "a", 1000));
    EXPECT_FALSE(mqtt_memory_has(memory, "b", 1000));
    EXPECT_FALSE(mqtt_memory_has(memory, "", 1000));
}

TEST(MqttMemory, ForgetsAfterAnHour)
{
    MqttMemory memory;
    mqtt_memory_add(&memory, "a", 1000);
    EXPECT_TRUE(mqtt_memory_has(memory, "a", 1000 + MQTT_MEMORY_TIME - 1));
    EXPECT_FALSE(mqtt_memory_has(memory, "a", 1000 + MQTT_MEMORY_TIME));
    /* The clock was set back. */
    EXPECT_TRUE(mqtt_memory_has(memory, "a", 0));
}

TEST(MqttMemory, IsBounded)
{
    MqttMemory memory;
    for (size_t i = 0; i <= MQTT_MEMORY_SIZE; i++) {
        mqtt_memory_add(&memory, std::to_string(i), 1000);
    }
    EXPECT_EQ(memory.entries.size(), MQTT_MEMORY_SIZE);
    EXPECT_FALSE(mqtt_memory_has(memory, "0", 1000));
    EXPECT_TRUE(mqtt_memory_has(memory, "1", 1000));
}

TEST(MqttPause, GrowsUpToItsMaximum)
{
    MqttPause pause;
    EXPECT_EQ(mqtt_pause_next(&pause, 0), 500);
    EXPECT_EQ(mqtt_pause_next(&pause, 1), 2000);
    for (int i = 0; i < 10; i++) {
        mqtt_pause_next(&pause, 0.5);
    }
    EXPECT_EQ(mqtt_pause_next(&pause, 1), MQTT_PAUSE_MAX);
    EXPECT_EQ(mqtt_pause_next(&pause, 0), MQTT_PAUSE_MAX / 2);
    mqtt_pause_reset(&pause);
    EXPECT_EQ(mqtt_pause_next(&pause, 1), MQTT_PAUSE_FIRST);
}

TEST(MqttLogLimit, PassesOneLineAMinuteAndCountsTheOthers)
{
    MqttLogLimit limit;
    unsigned dropped = 7;
    EXPECT_TRUE(mqtt_log_limit_pass(&limit, 0, &dropped));
    EXPECT_EQ(dropped, 0U);
    EXPECT_FALSE(mqtt_log_limit_pass(&limit, 1, &dropped));
    EXPECT_FALSE(mqtt_log_limit_pass(&limit, MQTT_LOG_INTERVAL - 1, &dropped));
    EXPECT_TRUE(mqtt_log_limit_pass(&limit, MQTT_LOG_INTERVAL, &dropped));
    EXPECT_EQ(dropped, 2U);
}

} // namespace
