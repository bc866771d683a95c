#include "mqtt_state.h"

#include <gtest/gtest.h>
#include <memory>

#include "autoptr.h"
#include "client_clips.h"
#include "mqtt_discovery.h"
#include "mqtt_json.h"

namespace
{

constexpr gint64 NOW = 1'795'000'000'000;

/* Owns nothing; the texts are literals. */
struct Listed {
    explicit Listed(std::initializer_list<ClientClip> list) : clips(list)
    {
        for (ClientClip &clip : clips) {
            g_ptr_array_add(array.get(), &clip);
        }
    }

    std::vector<ClientClip> clips;
    std::unique_ptr<GPtrArray, decltype(&g_ptr_array_unref)> array{g_ptr_array_new(),
                                                                   g_ptr_array_unref};
};

ClientClip make_clip(gint32 number, const char *name, const char *location)
{
    return {
        .number = number,
        .name = const_cast<char *>(name),
        .location = const_cast<char *>(location),
        .file_name = nullptr,
        .media_types = nullptr,
        .size_kib = -1,
        .duration_ms = number * 1000,
    };
}

MqttState make_state()
{
    MqttState state;
    state.is_running = true;
    const Listed listed{make_clip(0, "Door", "/etc/audioclips/door.wav"),
                        make_clip(1, "Fire", "/etc/audioclips/fire.wav"),
                        make_clip(2, "Fire", "/etc/audioclips/b.wav"), make_clip(7, "", "/a")};
    mqtt_state_set_clips(&state, listed.array.get());
    return state;
}

ClientEvent make_event(bool is_state, bool playing, const char *file)
{
    return {
        .is_state = is_state,
        .output = 0,
        .device = 0,
        .device_output = 0,
        .playing = playing,
        .file_name = file,
    };
}

json_t *load(const std::string &text)
{
    return json_loads(text.c_str(), 0, nullptr);
}

TEST(MqttState, FollowsTheEvents)
{
    MqttState state = make_state();
    EXPECT_FALSE(mqtt_state_is_playing(state));
    mqtt_state_apply(&state, make_event(true, true, ""), NOW);
    mqtt_state_apply(&state, make_event(false, false, "/etc/audioclips/door.wav"), NOW + 5);
    g_autoptr(json_t) playing = load(mqtt_state_write(state));
    EXPECT_TRUE(json_is_true(json_object_get(playing, "playing")));
    EXPECT_EQ(mqtt_json_get_text(playing, "text"), "Door");
    EXPECT_EQ(mqtt_json_get_text(playing, "daemon"), "running");
    const json_t *output = json_array_get(json_object_get(playing, "outputs"), 0);
    EXPECT_EQ(mqtt_json_get_text(output, "file"), "/etc/audioclips/door.wav");
    EXPECT_EQ(mqtt_json_get_integer(output, "clip", -1), 0);
    EXPECT_EQ(mqtt_json_get_integer(output, "since", 0), NOW + 5);
    mqtt_state_apply(&state, make_event(true, false, ""), NOW + 10);
    g_autoptr(json_t) idle = load(mqtt_state_write(state));
    EXPECT_TRUE(json_is_false(json_object_get(idle, "playing")));
    EXPECT_EQ(mqtt_json_get_text(idle, "text"), "idle");
}

TEST(MqttState, CountsTheRepeatsThatADurationNeeds)
{
    MqttState state = make_state();
    const std::string file = state.clips.at(0).location;
    state.clips.at(0).duration_ms = 3000;
    EXPECT_EQ(mqtt_state_count_repeats(state, file, 2999), 0);
    EXPECT_EQ(mqtt_state_count_repeats(state, file, 10'000), 3);
    state.clips.at(0).duration_ms = -1;
    EXPECT_EQ(mqtt_state_count_repeats(state, file, 10'000), -1);
    EXPECT_EQ(mqtt_state_count_repeats(state, "/etc/audioclips/other.wav", 10'000), -1);
}

TEST(MqttState, IsNotIdleIfAnUnknownFileIsPlaying)
{
    MqttState state = make_state();
    mqtt_state_apply(&state, make_event(true, true, ""), NOW);
    g_autoptr(json_t) playing = load(mqtt_state_write(state));
    EXPECT_EQ(mqtt_json_get_text(playing, "text"), "playing");
}

TEST(MqttState, ShowsAFileThatIsNotStored)
{
    MqttState state = make_state();
    mqtt_state_apply(&state, make_event(true, true, ""), NOW);
    mqtt_state_apply(&state, make_event(false, false, "/etc/audioclips/x/y.wav"), NOW);
    g_autoptr(json_t) playing = load(mqtt_state_write(state));
    EXPECT_EQ(mqtt_json_get_text(playing, "text"), "x/y.wav");
    const json_t *output = json_array_get(json_object_get(playing, "outputs"), 0);
    EXPECT_TRUE(json_is_null(json_object_get(output, "clip")));
}

TEST(MqttState, KnowsSinceWhenAClipPlaysThatBeganBeforeTheBridge)
{
    MqttState state;
    ClientOutput output = {.output = 0,
                           .device = 0,
                           .device_output = 0,
                           .playing = true,
                           .file_name = const_cast<char *>("/a"),
                           .file_since = 5'000'000,
                           .now = 7'500'000};
    g_autoptr(GPtrArray) outputs = g_ptr_array_new();
    g_ptr_array_add(outputs, &output);
    mqtt_state_set_outputs(&state, outputs, NOW);
    EXPECT_EQ(state.outputs.at(0).since, NOW - 2500);
    state = {};
    output.playing = false;
    mqtt_state_set_outputs(&state, outputs, NOW);
    EXPECT_EQ(state.outputs.at(0).since, 0);
}

TEST(MqttState, KeepsTheTimeOfAnOutputThatStillPlays)
{
    MqttState state = make_state();
    ClientOutput output = {.output = 0,
                           .device = 0,
                           .device_output = 0,
                           .playing = true,
                           .file_name = const_cast<char *>("/a"),
                           .file_since = 0,
                           .now = 0};
    g_autoptr(GPtrArray) outputs = g_ptr_array_new();
    g_ptr_array_add(outputs, &output);
    mqtt_state_set_outputs(&state, outputs, NOW);
    EXPECT_EQ(state.outputs.at(0).since, 0); /* it was playing before */
    mqtt_state_apply(&state, make_event(true, true, ""), NOW);
    mqtt_state_set_outputs(&state, outputs, NOW + 5);
    EXPECT_EQ(state.outputs.at(0).since, NOW);
    output.playing = false;
    mqtt_state_set_outputs(&state, outputs, NOW + 9);
    EXPECT_EQ(state.outputs.at(0).since, NOW + 9);
}

TEST(MqttState, SaysThatTheDaemonIsAway)
{
    g_autoptr(json_t) away = load(mqtt_state_write({}));
    EXPECT_EQ(mqtt_json_get_text(away, "daemon"), "away");
    EXPECT_EQ(mqtt_json_get_text(away, "text"), "The daemon is not running.");
}

TEST(MqttState, ListsTheClipsWithTheirLengths)
{
    g_autoptr(json_t) object = load(mqtt_state_write_clips(make_state()));
    const json_t *clips = json_object_get(object, "clips");
    ASSERT_EQ(json_array_size(clips), 4U);
    const json_t *clip = json_array_get(clips, 3);
    EXPECT_EQ(mqtt_json_get_integer(clip, "clip", -1), 7);
    EXPECT_EQ(mqtt_json_get_integer(clip, "durationMs", -1), 7000);
    EXPECT_TRUE(json_is_null(json_object_get(clip, "sizeKib")));
}

TEST(MqttState, GivesEachClipAToneOfItsOwn)
{
    const MqttState state = make_state();
    EXPECT_EQ(state.clips.at(0).tone, "Door");
    EXPECT_EQ(state.clips.at(1).tone, "Fire (1)");
    EXPECT_EQ(state.clips.at(2).tone, "Fire (2)");
    EXPECT_EQ(state.clips.at(3).tone, "Clip 7");
    EXPECT_EQ(mqtt_state_find_tone(state, "Fire (2)")->number, 2);
    EXPECT_EQ(mqtt_state_find_tone(state, "")->number, 0);
    EXPECT_EQ(mqtt_state_find_tone(state, "Fire"), nullptr);
    EXPECT_EQ(mqtt_state_find_tone({}, ""), nullptr);
}

TEST(MqttState, GivesNoToneThatIsTheNameOfAnotherClip)
{
    MqttState state;
    const Listed listed{make_clip(0, "Fire (2)", "/a"), make_clip(1, "Fire", "/a"),
                        make_clip(2, "Fire", "/a"), make_clip(3, "Clip 4", "/a"),
                        make_clip(4, "", "/a")};
    mqtt_state_set_clips(&state, listed.array.get());
    std::vector<std::string> tones;
    for (const MqttClip &clip : state.clips) {
        tones.push_back(clip.tone);
        EXPECT_EQ(mqtt_state_find_tone(state, clip.tone)->number, clip.number);
    }
    EXPECT_EQ(tones, (std::vector<std::string>{"Fire (2)", "Fire (1)", "Fire (2) (2)", "Clip 4",
                                               "Clip 4 (4)"}));
}

TEST(MqttDiscovery, MakesIdentifiersThatDiffer)
{
    MqttConf conf;
    conf.name = "shop-7";
    EXPECT_EQ(mqtt_discovery_topic(conf), "homeassistant/device/sonobrik_shop-7/config");
    conf.name = "a b";
    const std::string first = mqtt_discovery_topic(conf);
    conf.name = "a.b";
    EXPECT_NE(mqtt_discovery_topic(conf), first);
    conf.prefix = "sonobrik_a";
    conf.name = "b";
    const std::string second = mqtt_discovery_topic(conf);
    conf.prefix = "sonobrik";
    conf.name = "a_b";
    EXPECT_NE(mqtt_discovery_topic(conf), second);
}

TEST(MqttDiscovery, OffersTheClipsAsTones)
{
    MqttConf conf;
    conf.name = "shop7";
    g_autoptr(json_t) message = load(mqtt_discovery_write(conf, make_state()));
    const json_t *siren = json_object_get(json_object_get(message, "components"), "siren");
    EXPECT_EQ(mqtt_json_get_text(siren, "command_topic"), "sonobrik/shop7/siren/set");
    EXPECT_EQ(json_array_size(json_object_get(siren, "available_tones")), 4U);
}

TEST(MqttDiscovery, ReportsTheTone)
{
    MqttState state = make_state();
    EXPECT_EQ(mqtt_discovery_write_siren(state), R"({"state":"OFF"})");
    mqtt_state_apply(&state, make_event(false, false, "/etc/audioclips/door.wav"), NOW);
    mqtt_state_apply(&state, make_event(true, true, ""), NOW);
    EXPECT_EQ(mqtt_discovery_write_siren(state), R"({"state":"ON","tone":"Door"})");
    mqtt_state_apply(&state, make_event(false, false, "/other"), NOW);
    EXPECT_EQ(mqtt_discovery_write_siren(state), R"({"state":"ON"})");
}

} // namespace
