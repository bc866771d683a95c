#include "mqtt_store.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "temp_dir.h"

namespace
{

MqttStore make_store()
{
    MqttStore store;
    MqttJob job;
    job.topic = "sonobrik/shop7/play";
    job.payload = R"({"name":"Tür \"1\"\n","id":"a"})";
    job.response_topic = "answers";
    job.correlation = std::string("\0\xff\n", 3);
    job.has_correlation = true;
    job.received = 1'795'000'000'000;
    job.expires = 1'795'000'060'000;
    job.called_at = 1'795'000'000'500;
    store.jobs.push_back(job);
    mqtt_memory_add(&store.memory, "a", 1'795'000'000'000);
    store.announced = true;
    store.siren_end = 1'795'000'030'000;
    store.siren_file = "/etc/audioclips/siren.wav";
    store.saves = 7;
    return store;
}

void expect_same(const MqttStore &store)
{
    const MqttStore expected = make_store();
    ASSERT_EQ(store.jobs.size(), 1U);
    const MqttJob &job = store.jobs.front();
    EXPECT_EQ(job.topic, expected.jobs.front().topic);
    EXPECT_EQ(job.payload, expected.jobs.front().payload);
    EXPECT_EQ(job.response_topic, "answers");
    EXPECT_EQ(job.correlation, expected.jobs.front().correlation);
    EXPECT_TRUE(job.has_correlation);
    EXPECT_EQ(job.received, 1'795'000'000'000);
    EXPECT_EQ(job.expires, 1'795'000'060'000);
    EXPECT_EQ(job.called_at, 1'795'000'000'500);
    EXPECT_TRUE(mqtt_memory_has(store.memory, "a", 1'795'000'000'000));
    EXPECT_TRUE(store.announced);
    EXPECT_EQ(store.siren_end, 1'795'000'030'000);
    EXPECT_EQ(store.siren_file, "/etc/audioclips/siren.wav");
    EXPECT_EQ(store.saves, 7);
}

TEST(MqttStore, ReadsWhatItWrites)
{
    MqttStore store;
    EXPECT_TRUE(mqtt_store_read(&store, mqtt_store_write(make_store())));
    expect_same(store);
}

TEST(MqttStore, SavesAndLoads)
{
    const TempDir folder;
    for (const bool is_durable : {true, false}) {
        ASSERT_EQ(mqtt_store_save(make_store(), folder.path("store"), is_durable), 0);
        MqttStore store;
        EXPECT_EQ(mqtt_store_load(&store, folder.path("store")), 0);
        expect_same(store);
    }
    struct stat status = {};
    ASSERT_EQ(stat(folder.path("store").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST(MqttStore, KeepsTheOldFileIfSavingFails)
{
    const TempDir folder;
    ASSERT_EQ(mqtt_store_save(make_store(), folder.path("store"), true), 0);
    folder.folder("store.new");
    EXPECT_EQ(mqtt_store_save({}, folder.path("store"), true), EISDIR);
    MqttStore store;
    EXPECT_EQ(mqtt_store_load(&store, folder.path("store")), 0);
    expect_same(store);
}

TEST(MqttStore, RefusesWhatIsNotAStore)
{
    const TempDir folder;
    MqttStore store;
    EXPECT_EQ(mqtt_store_load(&store, folder.path("none")), ENOENT);
    EXPECT_EQ(mqtt_store_load(&store, folder.file("a", "[]")), EBADMSG);
    EXPECT_EQ(mqtt_store_load(&store, folder.file("b", "")), EBADMSG);
    EXPECT_TRUE(store.jobs.empty());
}

TEST(MqttStore, ReadsADamagedTimeAsLongAgo)
{
    for (const std::string time : {"-9223372036854775808", "-1", "253402300800000",
                                   "9223372036854775807", "1e300", "\"x\"", "null"}) {
        MqttStore store;
        ASSERT_TRUE(mqtt_store_read(&store, R"({"commands":[{"topic":"a","received":)" + time +
                                                R"(,"expires":1795000000000,"calledAt":)" + time +
                                                R"(},{"topic":"b","received":5,"expires":)" + time +
                                                R"(}],"ids":[["x",)" + time + R"(]],"sirenEnd":)" +
                                                time + R"(,"saves":)" + time + "}"));
        ASSERT_EQ(store.jobs.size(), 2U) << time;
        EXPECT_EQ(store.jobs.front().received, 1) << time;
        EXPECT_EQ(store.jobs.front().expires, 0) << time;
        EXPECT_EQ(store.jobs.front().called_at, 1) << time;
        EXPECT_EQ(store.jobs.back().expires, 1) << time;
        EXPECT_EQ(store.memory.entries.front().time, 1) << time;
        EXPECT_EQ(store.siren_end, 1) << time;
        EXPECT_LE(store.saves, 253402300800000) << time;
        EXPECT_GE(store.saves, 0) << time;
    }
}

TEST(MqttStore, LeavesOutEntriesThatMakeNoSense)
{
    MqttStore store;
    EXPECT_TRUE(mqtt_store_read(&store, R"({"commands":[1,{},{"topic":5},{"topic":"a"}],)"
                                        R"("ids":[1,[],[5,5],["x"],["y","z"]],"announced":1})"));
    ASSERT_EQ(store.jobs.size(), 1U);
    EXPECT_EQ(store.jobs.front().topic, "a");
    EXPECT_EQ(store.memory.entries.size(), 2U);
    EXPECT_FALSE(store.announced);
}

} // namespace
