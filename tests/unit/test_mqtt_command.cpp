#include "mqtt_command.h"

#include <gtest/gtest.h>

namespace
{

MqttCommand read(const std::string &payload, MqttTopicKind kind = MQTT_TOPIC_PLAY)
{
    MqttCommand command;
    std::string why;
    command.kind = kind;
    EXPECT_TRUE(mqtt_command_read(&command, payload, &why)) << payload << why;
    return command;
}

std::string fail(const std::string &payload, MqttTopicKind kind = MQTT_TOPIC_PLAY)
{
    MqttCommand command;
    std::string why;
    command.kind = kind;
    EXPECT_FALSE(mqtt_command_read(&command, payload, &why)) << payload;
    return why;
}

MqttCommand read_siren(const std::string &payload)
{
    MqttCommand command;
    std::string why;
    EXPECT_TRUE(mqtt_command_read_siren(&command, payload, &why)) << payload << why;
    return command;
}

TEST(MqttCommand, ReadsEachKey)
{
    const MqttCommand command =
        read(R"({"clip":3,"volume":50,"repeat":-1,"output":5,"at":1795000000000.0,"id":"a-1"})");
    EXPECT_EQ(command.clip, "3");
    EXPECT_EQ(command.volume, 50);
    EXPECT_EQ(command.repeat, -1);
    EXPECT_EQ(command.output, 5);
    EXPECT_EQ(command.at, 1795000000000);
    EXPECT_EQ(command.id, "a-1");
    EXPECT_FALSE(command.id_is_number);
}

TEST(MqttCommand, ReadsWhatToPlay)
{
    EXPECT_EQ(read(R"({"clip":"Front door"})").clip, "Front door");
    EXPECT_EQ(read(R"({"name":"3"})").clip_name, "3");
    EXPECT_EQ(read(R"({"location":"a/b.wav"})").location, "a/b.wav");
    EXPECT_EQ(fail("{}"), "Exactly one of 'clip', 'name' and 'location' is needed.");
    EXPECT_EQ(fail(R"({"clip":1,"name":"a"})"),
              "Exactly one of 'clip', 'name' and 'location' is needed.");
}

TEST(MqttCommand, LeavesOutWhatIsNotGiven)
{
    const MqttCommand command = read(R"({"clip":0})");
    EXPECT_EQ(command.volume, CLIENT_NOT_GIVEN);
    EXPECT_EQ(command.at, CLIENT_NOT_GIVEN);
    EXPECT_EQ(command.id, "");
}

TEST(MqttCommand, RepeatsANumberAsId)
{
    const MqttCommand command = read(R"({"clip":0,"id":-7})");
    EXPECT_EQ(command.id, "-7");
    EXPECT_TRUE(command.id_is_number);
}

TEST(MqttCommand, RefusesWhatIsOutOfRange)
{
    EXPECT_EQ(fail(R"({"clip":0,"volume":1001})"), "'volume' is not an integer from 0 to 1000.");
    EXPECT_EQ(fail(R"({"clip":0,"volume":"50"})"), "'volume' is not an integer from 0 to 1000.");
    EXPECT_EQ(fail(R"({"clip":0,"volume":0.5})"), "'volume' is not an integer from 0 to 1000.");
    EXPECT_EQ(fail(R"({"clip":0,"repeat":-2})"),
              "'repeat' is not an integer from -1 to 2147483647.");
    EXPECT_EQ(fail(R"({"clip":0,"output":6})"), "'output' is not an integer from 0 to 5.");
    EXPECT_EQ(fail(R"({"clip":0,"at":-1})"), "'at' is not an integer from 0 to 253402300799999.");
    EXPECT_EQ(fail(R"({"clip":0,"at":1e300})"),
              "'at' is not an integer from 0 to 253402300799999.");
    EXPECT_EQ(fail(R"({"clip":true})"), "'clip' is not the number or the name of a clip.");
    EXPECT_EQ(fail(R"({"location":""})"), "'location' is not a text of 1 to 4095 bytes.");
    EXPECT_EQ(fail(R"({"name":")" + std::string(256, 'a') + "\"}"),
              "'name' is not a text of 1 to 255 bytes.");
    EXPECT_EQ(fail(R"({"clip":0,"id":""})"), "'id' is not an integer or a text of 1 to 128 bytes.");
}

TEST(MqttCommand, RefusesUnknownKeysButKnowsTheId)
{
    MqttCommand command;
    std::string why;
    command.kind = MQTT_TOPIC_PLAY;
    EXPECT_FALSE(mqtt_command_read(&command, R"({"vol":5,"clip":1,"id":"x"})", &why));
    EXPECT_EQ(why, "The key 'vol' is unknown.");
    EXPECT_EQ(command.id, "x");
}

TEST(MqttCommand, RefusesWhatIsNotAnObject)
{
    EXPECT_EQ(fail("[1]"), "The payload is not a JSON object.");
    EXPECT_TRUE(fail("").starts_with("The payload is not JSON: "));
    EXPECT_TRUE(fail("\xff\xfe").starts_with("The payload is not JSON: "));
    EXPECT_TRUE(fail(R"({"clip":1,"clip":2})").starts_with("The payload is not JSON: "));
    EXPECT_TRUE(fail(std::string(65536, '[')).starts_with("The payload is not JSON: "));
    EXPECT_TRUE(fail(R"({"name":"a\u0000b"})").starts_with("The payload is not JSON: "));
}

TEST(MqttCommand, AStopNeedsNoPayload)
{
    EXPECT_EQ(read("", MQTT_TOPIC_STOP).id, "");
    EXPECT_EQ(read(R"({"id":"a"})", MQTT_TOPIC_STOP).id, "a");
    EXPECT_EQ(fail(R"({"clip":1})", MQTT_TOPIC_STOP), "The key 'clip' is unknown.");
    EXPECT_EQ(read("{}", MQTT_TOPIC_PING).id, "");
}

TEST(MqttCommand, TakesWholeNumbersInEachNotation)
{
    const MqttCommand command = read(R"({"clip":3.0,"id":7e0})");
    EXPECT_EQ(command.clip, "3");
    EXPECT_EQ(command.id, "7");
    EXPECT_TRUE(command.id_is_number);
}

TEST(MqttCommand, TellsJsonOfAnotherKindFromNonsense)
{
    for (const char *payload : {"[]", "17", "\"text\"", "null"}) {
        EXPECT_EQ(fail(payload), "The payload is not a JSON object.");
    }
}

TEST(MqttCommandSiren, ReadsOnlyWhatIsGiven)
{
    const MqttCommand on = read_siren(R"({"state":"ON"})");
    EXPECT_EQ(on.kind, MQTT_TOPIC_PLAY);
    EXPECT_EQ(on.tone, "");
    EXPECT_EQ(on.volume, CLIENT_NOT_GIVEN);
    EXPECT_EQ(on.repeat, CLIENT_NOT_GIVEN);
    EXPECT_EQ(read_siren(R"({"state":"OFF"})").kind, MQTT_TOPIC_STOP);
}

TEST(MqttCommandSiren, TurnsItsUnitsIntoTheDaemons)
{
    const MqttCommand on =
        read_siren(R"({"state":"ON","tone":"Fire","volume_level":0.55,"duration":10})");
    EXPECT_EQ(on.tone, "Fire");
    EXPECT_EQ(on.volume, 55);
    EXPECT_EQ(on.duration, 10);
    EXPECT_EQ(read_siren(R"({"state":"ON","volume_level":1})").volume, 100);
}

TEST(MqttCommandSiren, RefusesNonsense)
{
    for (const char *payload :
         {"", "ON", "[]", "{}", R"({"state":"on"})", R"({"state":"ON","volume_level":1.01})",
          R"({"state":"ON","volume_level":"1"})", R"({"state":"ON","duration":0})",
          R"({"state":"ON","duration":86401})"}) {
        MqttCommand command;
        std::string why;
        EXPECT_FALSE(mqtt_command_read_siren(&command, payload, &why)) << payload;
        EXPECT_NE(why, "") << payload;
    }
}

TEST(MqttCommandLocation, StaysInTheClipFolder)
{
    std::string path;
    std::string why;
    EXPECT_TRUE(mqtt_command_find_location("a/b.wav", false, &path, &why));
    EXPECT_EQ(path, "/etc/audioclips/a/b.wav");
    EXPECT_TRUE(mqtt_command_find_location("/etc/audioclips/a..wav", false, &path, &why));
    for (const char *location : {"/etc/passwd", "/etc/audioclips", "/etc/audioclips2/a", "../a",
                                 "/etc/audioclips/../shadow", "a/../../b"}) {
        EXPECT_FALSE(mqtt_command_find_location(location, false, &path, &why)) << location;
        EXPECT_EQ(why, "The location is not in /etc/audioclips.");
        EXPECT_TRUE(mqtt_command_find_location(location, true, &path, &why)) << location;
    }
}

} // namespace
