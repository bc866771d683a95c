#include "mqtt_jobs.h"

#include <gtest/gtest.h>

#include <vector>

#include "autoptr.h"
#include "client_events.h"
#include "mqtt_bridge_data.h"
#include "mqtt_catch_up.h"
#include "mqtt_clock.h"
#include "mqtt_json.h"
#include "mqtt_siren.h"
#include "temp_dir.h"

namespace
{

constexpr gint64 NOON = 1'795'000'000'000; /* Unix time in milliseconds */

/* What the fakes below give and record. */
gint64 fake_now;
gint64 fake_boot; /* milliseconds since the boot */
std::vector<std::string> fake_calls;
std::vector<MqttReply> fake_replies;
std::vector<std::string> fake_answers;
std::function<void()> fake_on_call;

} // namespace

gint64 mqtt_clock_now(void)
{
    return fake_now;
}

gint64 mqtt_clock_boot(void)
{
    return fake_boot;
}

MqttClock mqtt_clock_read(void)
{
    return {};
}

json_t *mqtt_clock_describe(const MqttClock &)
{
    return json_null();
}

bool mqtt_client_is_connected(const MqttClient *)
{
    return true;
}

bool mqtt_client_forget(MqttClient *)
{
    return true;
}

unsigned mqtt_client_count_unconfirmed(const MqttClient *)
{
    return 0;
}

int mqtt_client_publish(MqttClient *, const std::string &, const std::string &payload, bool,
                        const std::string *)
{
    fake_answers.push_back(payload);
    return 1;
}

void mqtt_daemon_call(MqttDaemon *, const ClientInterface *, const char *member, const char *,
                      const MqttReply &done)
{
    fake_calls.emplace_back(member);
    fake_replies.push_back(done);
    if (fake_on_call) {
        fake_on_call();
    }
}

void mqtt_daemon_list(MqttDaemon *, bool, const MqttClips &) {}

namespace
{

class MqttJobs : public ::testing::Test
{
  protected:
    MqttJobs()
    {
        fake_now = NOON;
        fake_boot = 3'600'000;
        fake_calls.clear();
        fake_replies.clear();
        fake_answers.clear();
        fake_on_call = nullptr;
        bridge.spare_path = folder.path("spare");
        conf.name = "shop7";
        sd_event_new(&bridge.event);
        bridge.conf = &conf;
        bridge.lead.configured = 130'000;
        bridge.away = 0;
        sd_event_add_time(bridge.event, &bridge.alarm, CLOCK_REALTIME, 0, 1, mqtt_jobs_on_alarm,
                          &bridge);
        sd_event_source_set_enabled(bridge.alarm, SD_EVENT_OFF);
    }

    ~MqttJobs() override
    {
        sd_event_source_unref(bridge.alarm);
        sd_event_unref(bridge.event);
    }

    MqttJobs(const MqttJobs &) = delete;
    MqttJobs &operator=(const MqttJobs &) = delete;

    void receive(const std::string &payload)
    {
        receive_on("play", payload);
    }

    void receive_on(const std::string &leaf, const std::string &payload, gint64 expiry = -1)
    {
        MqttMessage message;
        message.topic = "sonobrik/shop7/" + leaf;
        message.payload = payload;
        message.expiry = expiry;
        mqtt_jobs_receive(&bridge, message);
    }

    /* Does what the event loop does after `pause` milliseconds. */
    void turn_after(gint64 pause)
    {
        fake_now += pause;
        fake_boot += pause;
        mqtt_catch_up_note_turn(&bridge);
    }

    void receive_availability(const std::string &payload, const std::string &correlation)
    {
        MqttMessage message;
        message.topic = "sonobrik/shop7/availability";
        message.payload = payload;
        message.correlation = correlation;
        mqtt_catch_up_on_availability(&bridge, message);
    }

    /* Receives a command for `at` and lets the daemon accept the file. */
    void schedule(gint64 at)
    {
        receive(R"({"location":"a.wav","at":)" + std::to_string(at) + "}");
        ASSERT_EQ(fake_calls, std::vector<std::string>{"SupportedFile"});
        fake_replies.back()(nullptr, nullptr);
        ASSERT_EQ(get_status(), "scheduled");
        fake_calls.clear();
    }

    /* Does what the next process does with the file of this one. */
    void restart()
    {
        MqttStore store;
        ASSERT_TRUE(mqtt_store_read(&store, mqtt_store_write(bridge.store)));
        bridge.store = store;
        mqtt_jobs_resume(&bridge);
    }

    /* Does what the event loop does when the alarm's time has come. */
    void ring()
    {
        mqtt_jobs_on_alarm(bridge.alarm, 0, &bridge);
    }

    /* Returns the time of the alarm in Unix milliseconds, or 0 if it is off. */
    gint64 get_alarm()
    {
        int enabled = 0;
        guint64 time = 0;
        sd_event_source_get_enabled(bridge.alarm, &enabled);
        sd_event_source_get_time(bridge.alarm, &time);
        return enabled == SD_EVENT_OFF ? 0 : static_cast<gint64>(time / 1000);
    }

    /* Returns the status of the last answer. */
    static std::string get_status()
    {
        g_autoptr(json_t) answer =
            fake_answers.empty() ? nullptr : json_loads(fake_answers.back().c_str(), 0, nullptr);
        return mqtt_json_get_text(answer, "status");
    }

    const TempDir folder;
    MqttConf conf;
    MqttBridge bridge = {};
};

TEST_F(MqttJobs, CallsTheDaemonEarlierByTheLead)
{
    schedule(NOON + 60'000);
    EXPECT_EQ(get_alarm(), NOON + 59'870);
    fake_now = NOON + 59'870;
    ring();
    EXPECT_EQ(fake_calls, std::vector<std::string>{"StartPlayingClip"});
    EXPECT_EQ(get_alarm(), 0);
}

TEST_F(MqttJobs, PlaysAtOnceIfTheClockIsSetPastTheTimeByLessThanTheGrace)
{
    schedule(NOON + 60'000);
    fake_now = NOON + 60'000 + conf.grace;
    ring();
    EXPECT_EQ(fake_calls, std::vector<std::string>{"StartPlayingClip"});
}

TEST_F(MqttJobs, PlaysNothingIfTheClockIsSetPastTheTimeByMoreThanTheGrace)
{
    schedule(NOON + 60'000);
    fake_now = NOON + 60'000 + conf.grace + 1;
    ring();
    EXPECT_TRUE(fake_calls.empty());
    EXPECT_EQ(get_status(), "late");
    EXPECT_TRUE(bridge.store.jobs.empty());
    EXPECT_EQ(get_alarm(), 0);
}

TEST_F(MqttJobs, WaitsLongerIfTheClockIsSetBack)
{
    schedule(NOON + 60'000);
    fake_now = NOON - 3'600'000;
    ring();
    EXPECT_TRUE(fake_calls.empty());
    EXPECT_EQ(get_alarm(), NOON + 59'870);
    fake_now = NOON + 59'870;
    ring();
    EXPECT_EQ(fake_calls, std::vector<std::string>{"StartPlayingClip"});
}

TEST_F(MqttJobs, AcceptsAStopAlthoughNoMorePlaysAreAccepted)
{
    while (get_status() != "refused") {
        receive(R"({"location":"a.wav"})");
        ASSERT_LT(fake_calls.size(), 1000U);
    }
    const size_t plays = fake_calls.size();
    for (int i = 0; i < 16; i++) {
        receive_on("stop", "");
    }
    ASSERT_EQ(fake_calls.size(), plays + 16);
    EXPECT_EQ(fake_calls.back(), "StopPlayingClip");
    receive_on("stop", "");
    EXPECT_EQ(get_status(), "refused");
    EXPECT_EQ(fake_calls.size(), plays + 16);
}

TEST_F(MqttJobs, ARefusedCommandMayBeSentAgainWithItsIdentifier)
{
    const std::string command =
        R"({"location":"a.wav","id":"x","at":)" + std::to_string(NOON + MQTT_MAX_WAIT + 1) + "}";
    receive(command);
    EXPECT_EQ(get_status(), "refused");
    fake_now++;
    receive(command);
    EXPECT_EQ(fake_calls, std::vector<std::string>{"SupportedFile"});
    receive(command);
    EXPECT_EQ(get_status(), "duplicate");
}

TEST_F(MqttJobs, ARestartDoesNotRepeatACallOfTheDaemon)
{
    receive(R"({"location":"a.wav"})");
    EXPECT_EQ(fake_calls, std::vector<std::string>{"StartPlayingClip"});
    EXPECT_TRUE(bridge.must_save);
    restart();
    EXPECT_EQ(fake_calls.size(), 1U);
    EXPECT_EQ(get_status(), "failed");
    EXPECT_TRUE(bridge.store.jobs.empty());
}

TEST_F(MqttJobs, SavesTheCallBeforeItCallsTheDaemon)
{
    MqttStore saved;
    fake_on_call = [this, &saved] {
        mqtt_store_load(&saved, bridge.spare_path);
    };
    receive(R"({"location":"a.wav"})");
    EXPECT_EQ(fake_calls, std::vector<std::string>{"StartPlayingClip"});
    ASSERT_EQ(saved.jobs.size(), 1U);
    EXPECT_EQ(saved.jobs.front().called_at, NOON);
}

TEST_F(MqttJobs, RemembersTheIdentifierOfACommandForAnHourAfterItsTime)
{
    conf.grace = 3'600'000;
    const gint64 at = NOON + 2 * 3'600'000;
    const std::string command = R"({"location":"a.wav","id":"x","at":)" + std::to_string(at) + "}";
    receive(command);
    bridge.store.jobs.clear();
    fake_now = at + 3'599'999;
    receive(command);
    EXPECT_EQ(get_status(), "duplicate");
}

TEST_F(MqttJobs, ACommandThatWaitsIsADuplicateEvenIfItsIdentifierIsForgotten)
{
    const std::string command =
        R"({"location":"a.wav","id":"x","at":)" + std::to_string(NOON + 60'000) + "}";
    receive(command);
    bridge.store.memory.entries.clear();
    receive(command);
    EXPECT_EQ(get_status(), "duplicate");
}

TEST_F(MqttJobs, ARestartGoesOnWithACommandThatWaits)
{
    schedule(NOON + 60'000);
    restart();
    EXPECT_EQ(fake_calls, std::vector<std::string>{"SupportedFile"});
}

TEST_F(MqttJobs, AfterARestartWithAClockThatWasSetBackTheAgeIsUnknown)
{
    MqttMessage message;
    message.topic = "sonobrik/shop7/play";
    message.payload = R"({"clip":0})";
    message.expiry = 60;
    mqtt_jobs_receive(&bridge, message); /* the daemon does not answer */
    fake_now = NOON - 3'600'000;
    restart();
    EXPECT_EQ(get_status(), "late");
    EXPECT_TRUE(bridge.store.jobs.empty());
}

TEST_F(MqttJobs, ACommandWithADamagedTimeIsLate)
{
    ASSERT_TRUE(mqtt_store_read(
        &bridge.store, R"({"commands":[{"topic":"sonobrik/shop7/play","payload":"{\"clip\":0}",)"
                       R"("received":-9223372036854775808,"expires":1795000060000}]})"));
    mqtt_jobs_resume(&bridge);
    EXPECT_EQ(get_status(), "late");
    EXPECT_TRUE(bridge.store.jobs.empty());
}

TEST_F(MqttJobs, ARestartStopsTheSirenOnlyIfItStillPlays)
{
    MqttJob job;
    job.location = "/etc/audioclips/siren.wav";
    job.command.duration = 60;
    for (const std::string &playing : {job.location, std::string("/etc/audioclips/other.wav")}) {
        mqtt_siren_set(&bridge, job);
        bridge.siren_end = sd_event_source_disable_unref(bridge.siren_end);
        restart();
        bridge.state.outputs = {
            {.output = 0,
             .device = 0,
             .device_output = 0,
             .playing = true,
             .file = playing,
             .since = 0},
        };
        mqtt_siren_resume(&bridge);
        EXPECT_EQ(bridge.siren_end != nullptr, playing == job.location);
        EXPECT_EQ(bridge.store.siren_end, playing == job.location ? NOON + 60'000 : 0);
    }
    mqtt_siren_forget(&bridge);
}

/* The broker sends what it kept during an hour without this node. */
TEST_F(MqttJobs, WhatTheBrokerKeptIsLateHoweverLongTheBrokerTakesToSendIt)
{
    bridge.is_catching_up = true;
    bridge.away = 3'600'000;
    bridge.last_kept = fake_boot;
    for (int i = 0; i < 10; i++) {
        fake_boot += 29'000;
        receive(R"({"location":"a.wav"})");
        EXPECT_EQ(get_status(), "late");
    }
    EXPECT_TRUE(fake_calls.empty());
}

TEST_F(MqttJobs, AfterAPauseTheBrokerHasSentWhatItKept)
{
    bridge.is_catching_up = true;
    bridge.away = 3'600'000;
    bridge.last_kept = fake_boot;
    fake_boot += 30'000;
    receive(R"({"location":"a.wav"})");
    EXPECT_EQ(fake_calls, std::vector<std::string>{"StartPlayingClip"});
}

TEST_F(MqttJobs, ACommandThatWaitedWhileTheBridgeWasHeldUpIsLate)
{
    turn_after(0);
    turn_after(conf.grace + 1);
    EXPECT_EQ(fake_answers, std::vector<std::string>{"online"});
    for (int i = 0; i < 3; i++) {
        receive(R"({"location":"a.wav"})");
        EXPECT_EQ(get_status(), "late");
        turn_after(1000);
    }
    EXPECT_TRUE(fake_calls.empty());
    receive_availability("online", bridge.mark);
    receive(R"({"location":"a.wav"})");
    EXPECT_EQ(fake_calls, std::vector<std::string>{"StartPlayingClip"});
}

TEST_F(MqttJobs, AShortPauseDoesNotMakeACommandLate)
{
    turn_after(0);
    turn_after(conf.grace);
    conf.grace = 100; /* less than the time between two turns */
    turn_after(1100);
    receive(R"({"location":"a.wav"})");
    EXPECT_EQ(fake_calls, std::vector<std::string>{"StartPlayingClip"});
}

TEST_F(MqttJobs, TheTimeInWhichTheBridgeWasHeldUpCountsForTheExpiry)
{
    turn_after(0);
    turn_after(60'000);
    receive_on("play", R"({"location":"a.wav"})", 60);
    EXPECT_EQ(get_status(), "expired");
    EXPECT_TRUE(fake_calls.empty());
    receive_on("play", R"({"location":"a.wav"})", 61);
    EXPECT_EQ(fake_calls, std::vector<std::string>{"StartPlayingClip"});
}

TEST_F(MqttJobs, TheAgeGrowsIfTheBridgeIsHeldUpWhileTheBrokerSendsWhatItKept)
{
    bridge.is_catching_up = true;
    bridge.last_kept = fake_boot;
    bridge.away = 8000;
    turn_after(0);
    turn_after(conf.grace + 1);
    EXPECT_EQ(bridge.away, 8000 + conf.grace + 1);
    bridge.away = MQTT_UNKNOWN;
    turn_after(conf.grace + 1);
    EXPECT_EQ(bridge.away, MQTT_UNKNOWN);
}

TEST_F(MqttJobs, PausesInARowAddUp)
{
    turn_after(0);
    turn_after(60'000);
    turn_after(40'000); /* more than the time after which nothing is kept any more */
    EXPECT_EQ(bridge.away, 100'000);
    receive_on("play", R"({"location":"a.wav"})", 100);
    EXPECT_EQ(get_status(), "expired");
}

TEST_F(MqttJobs, AnExpiryDoesNotApplyToACommandWithATime)
{
    receive_on("play", R"({"location":"a.wav","at":)" + std::to_string(NOON + 60'000) + "}", 0);
    EXPECT_EQ(fake_calls, std::vector<std::string>{"SupportedFile"});
    receive_on("play", R"({"location":"a.wav"})", 0);
    EXPECT_EQ(get_status(), "expired");
}

TEST_F(MqttJobs, CorrectsTheOfflineOfAnotherClient)
{
    bridge.mark = "mark";
    receive_availability("offline", "");
    EXPECT_EQ(fake_answers, std::vector<std::string>{"online"});
    receive_availability("online", "mark");
    receive_availability("online", "");
    /* The broker kept the node's own will of the last connection. */
    bridge.is_catching_up = true;
    bridge.last_kept = fake_boot;
    receive_availability("offline", "");
    EXPECT_EQ(fake_answers.size(), 1U);
}

TEST_F(MqttJobs, AsksOnceMoreIfTheDaemonGoesAwayWhileItChecksTheFile)
{
    receive(R"({"location":"a.wav","at":)" + std::to_string(NOON + 60'000) + "}");
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(get_status(), "");
        g_autoptr(GError) gone = g_error_new(CLIENT_ERROR, CLIENT_ERROR_NO_DAEMON, "gone");
        fake_replies.back()(nullptr, gone);
        mqtt_jobs_on_retry(nullptr, 0, &bridge);
    }
    EXPECT_EQ(fake_calls, (std::vector<std::string>{"SupportedFile", "SupportedFile"}));
    EXPECT_EQ(get_status(), "failed");
}

TEST_F(MqttJobs, DoesNotAskAgainIfTheDaemonGoesAwayWhileItStartsTheClip)
{
    receive(R"({"location":"a.wav"})");
    g_autoptr(GError) gone = g_error_new(CLIENT_ERROR, CLIENT_ERROR_NO_DAEMON, "gone");
    fake_replies.back()(nullptr, gone);
    EXPECT_EQ(get_status(), "failed");
}

TEST_F(MqttJobs, PlaysNothingIfTheClockIsSetWhileTheFileIsChecked)
{
    receive(R"({"location":"a.wav","at":)" + std::to_string(NOON + 60'000) + "}");
    fake_now = NOON + 3'600'000;
    fake_replies.back()(nullptr, nullptr);
    EXPECT_EQ(fake_calls, std::vector<std::string>{"SupportedFile"});
    EXPECT_EQ(get_status(), "late");
}

} // namespace
