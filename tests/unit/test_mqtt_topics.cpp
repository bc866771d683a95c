#include "mqtt_topics.h"

#include <gtest/gtest.h>

#include "mqtt_conf.h"

namespace
{

MqttConf make_conf()
{
    MqttConf conf;
    conf.prefix = "chain/west";
    conf.name = "shop7";
    conf.groups = {"all", "shop"};
    return conf;
}

MqttTopicKind find(std::string_view topic, std::string *group)
{
    return mqtt_topics_find(make_conf(), topic, group);
}

TEST(MqttTopics, FindsTheCommandsOfTheNode)
{
    std::string group = "old";
    EXPECT_EQ(find("chain/west/shop7/play", &group), MQTT_TOPIC_PLAY);
    EXPECT_EQ(group, "");
    EXPECT_EQ(find("chain/west/shop7/stop", &group), MQTT_TOPIC_STOP);
    EXPECT_EQ(find("chain/west/shop7/ping", &group), MQTT_TOPIC_PING);
    EXPECT_EQ(find("chain/west/shop7/availability", &group), MQTT_TOPIC_AVAILABILITY);
    EXPECT_EQ(find("chain/west/shop7/siren/set", &group), MQTT_TOPIC_SIREN);
    EXPECT_EQ(find("homeassistant/status", &group), MQTT_TOPIC_HOME_ASSISTANT);
}

TEST(MqttTopics, FindsTheGroup)
{
    std::string group;
    EXPECT_EQ(find("chain/west/group/shop/play", &group), MQTT_TOPIC_PLAY);
    EXPECT_EQ(group, "shop");
    EXPECT_EQ(find("chain/west/group/all/stop", &group), MQTT_TOPIC_STOP);
    EXPECT_EQ(group, "all");
}

TEST(MqttTopics, IgnoresEverythingElse)
{
    std::string group;
    for (const char *topic :
         {"", "chain/west", "chain/west/shop7", "chain/west/shop7/", "chain/west/shop70/play",
          "chain/west/group/none/play", "chain/west/group/all", "chain/west/group/all/play/x",
          "chain/west/shop7/play/x", "chain/westshop7/play", "other/shop7/play"}) {
        EXPECT_EQ(find(topic, &group), MQTT_TOPIC_OTHER) << topic;
        EXPECT_EQ(group, "") << topic;
    }
}

TEST(MqttTopics, ListsWhatIsFound)
{
    const MqttConf conf = make_conf();
    const std::vector<std::string> topics = mqtt_topics_list(conf);
    EXPECT_EQ(topics.size(), 12U);
    for (const std::string &topic : topics) {
        std::string group;
        EXPECT_NE(find(topic, &group), MQTT_TOPIC_OTHER) << topic;
    }
}

TEST(MqttTopics, LeavesHomeAssistantOutIfItIsOff)
{
    MqttConf conf = make_conf();
    conf.discovery = false;
    std::string group;
    EXPECT_EQ(mqtt_topics_list(conf).size(), 10U);
    EXPECT_EQ(mqtt_topics_find(conf, "homeassistant/status", &group), MQTT_TOPIC_OTHER);
    EXPECT_EQ(mqtt_topics_find(conf, "chain/west/shop7/siren/set", &group), MQTT_TOPIC_OTHER);
}

TEST(MqttTopics, AnswersNowhereThatCommandsAreRead)
{
    const MqttConf conf = make_conf();
    EXPECT_TRUE(mqtt_topics_may_answer(conf, "answers/anna"));
    EXPECT_TRUE(mqtt_topics_may_answer(conf, "chain/west/answers/anna"));
    EXPECT_TRUE(mqtt_topics_may_answer(conf, "chain/west/groups/anna"));
    for (const char *topic :
         {"", "a/#", "a/+", "chain/west/group/all/play", "chain/west/group/x",
          "chain/west/shop8/play", "chain/west/shop8/stop", "chain/west/shop8/siren/set"}) {
        EXPECT_FALSE(mqtt_topics_may_answer(conf, topic)) << topic;
    }
}

TEST(MqttTopics, LimitsTheLevels)
{
    std::string topic = "answers";
    for (int i = 0; i < 32; i++) {
        topic += "/x";
    }
    EXPECT_TRUE(mqtt_topics_may_answer(make_conf(), topic));
    EXPECT_TRUE(mqtt_topics_is_prefix(topic));
    topic += "/x";
    EXPECT_FALSE(mqtt_topics_may_answer(make_conf(), topic));
    EXPECT_FALSE(mqtt_topics_is_prefix(topic));
}

TEST(MqttTopics, KnowsWhatCanBeALevel)
{
    EXPECT_TRUE(mqtt_topics_is_level("Küche 1"));
    EXPECT_TRUE(mqtt_topics_is_level(std::string(64, 'a')));
    for (const std::string &text :
         {std::string(), std::string(65, 'a'), std::string("a/b"), std::string("+"),
          std::string("a#"), std::string("a\nb"), std::string("\xff"), std::string("a\0b", 3)}) {
        EXPECT_FALSE(mqtt_topics_is_level(text)) << text;
    }
    EXPECT_TRUE(mqtt_topics_is_prefix("a/b"));
    for (const char *text : {"", "/a", "a/", "a//b", "$SYS", "a/+"}) {
        EXPECT_FALSE(mqtt_topics_is_prefix(text)) << text;
    }
}

} // namespace
