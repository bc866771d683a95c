#include "mqtt_answer.h"

#include <gtest/gtest.h>

#include "autoptr.h"
#include "mqtt_clock.h"
#include "mqtt_json.h"

namespace
{

constexpr gint64 NOW = 1'795'000'000'000;

json_t *write(const MqttJob &job, MqttStatus status, const std::string &text,
              const MqttClock &clock = {})
{
    MqttConf conf;
    conf.name = "shop7";
    return json_loads(mqtt_answer_write(conf, job, status, text, NOW, clock).c_str(), 0, nullptr);
}

MqttJob make_job()
{
    MqttJob job;
    job.command.kind = MQTT_TOPIC_PLAY;
    return job;
}

TEST(MqttAnswer, NamesTheNodeAndTheCommand)
{
    MqttJob job = make_job();
    job.command.id = "a";
    job.command.group = "all";
    g_autoptr(json_t) answer = write(job, MQTT_FAILED, "A clip is already playing.");
    EXPECT_EQ(mqtt_json_get_text(answer, "node"), "shop7");
    EXPECT_EQ(mqtt_json_get_text(answer, "command"), "play");
    EXPECT_EQ(mqtt_json_get_text(answer, "group"), "all");
    EXPECT_EQ(mqtt_json_get_text(answer, "id"), "a");
    EXPECT_EQ(mqtt_json_get_text(answer, "status"), "failed");
    EXPECT_EQ(mqtt_json_get_text(answer, "text"), "A clip is already playing.");
    EXPECT_TRUE(json_is_false(json_object_get(answer, "ok")));
    EXPECT_EQ(mqtt_json_get_integer(answer, "time", 0), NOW);
    EXPECT_TRUE(json_is_null(json_object_get(answer, "clock")));
}

TEST(MqttAnswer, SaysWhenItSounds)
{
    MqttJob job = make_job();
    job.command.at = NOW + 100;
    job.command.id = "12";
    job.command.id_is_number = true;
    job.called_at = NOW;
    job.call_lead = 99'600;
    job.clip = 3;
    job.location = "/etc/audioclips/\xff.wav";
    g_autoptr(json_t) answer = write(job, MQTT_PLAYING, "OK");
    EXPECT_TRUE(json_is_true(json_object_get(answer, "ok")));
    EXPECT_EQ(mqtt_json_get_integer(answer, "id", 0), 12);
    EXPECT_EQ(mqtt_json_get_integer(answer, "at", 0), NOW + 100);
    EXPECT_EQ(mqtt_json_get_integer(answer, "soundsAt", 0), NOW + 100);
    EXPECT_EQ(mqtt_json_get_integer(answer, "clip", 0), 3);
    EXPECT_EQ(mqtt_json_get_text(answer, "file"), "/etc/audioclips/\xef\xbf\xbd.wav");
}

TEST(MqttAnswer, CarriesTheErrorOfASynchronizedClockOnly)
{
    const MqttClock clock = {.is_known = true,
                             .is_synchronized = true,
                             .estimated_error = 1500,
                             .maximum_error = 20'000};
    g_autoptr(json_t) answer = write(make_job(), MQTT_PONG, "OK", clock);
    const json_t *described = json_object_get(answer, "clock");
    EXPECT_TRUE(json_is_true(json_object_get(described, "synchronized")));
    EXPECT_DOUBLE_EQ(json_real_value(json_object_get(described, "errorMs")), 1.5);
    EXPECT_DOUBLE_EQ(json_real_value(json_object_get(described, "maxErrorMs")), 20);
    g_autoptr(json_t) other = write(make_job(), MQTT_PONG, "OK", {.is_known = true});
    described = json_object_get(other, "clock");
    EXPECT_TRUE(json_is_false(json_object_get(described, "synchronized")));
    EXPECT_TRUE(json_is_null(json_object_get(described, "errorMs")));
}

TEST(MqttClockNow, IsTheTimeOfTheMachine)
{
    EXPECT_NEAR(static_cast<double>(mqtt_clock_now()),
                static_cast<double>(g_get_real_time()) / 1000, 1000);
    EXPECT_GE(mqtt_clock_boot(), g_get_monotonic_time() / 1000 - 1000);
}

} // namespace
