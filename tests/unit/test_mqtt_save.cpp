#include "mqtt_save.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <utility>

#include "mqtt_bridge_data.h"
#include "temp_dir.h"

namespace
{

class MqttSave : public ::testing::Test
{
  protected:
    MqttSave()
    {
        bridge.store_path = folder.path("store");
        bridge.spare_path = folder.path("spare");
    }

    /* Makes it impossible to write the file `path`, whoever runs the test. */
    static void block(const std::string &path)
    {
        std::filesystem::create_directory(path + ".new");
    }

    void change(const std::string &id)
    {
        mqtt_memory_add(&bridge.store.memory, id, 1);
        bridge.must_save = true;
        mqtt_save_changes(&bridge);
    }

    /* Returns true if the next process remembers `id`. */
    bool is_remembered(const std::string &id) const
    {
        MqttBridge next = {};
        next.store_path = bridge.store_path;
        next.spare_path = bridge.spare_path;
        mqtt_save_load(&next);
        return mqtt_memory_has(next.store.memory, id, 1);
    }

    const TempDir folder;
    MqttBridge bridge = {};
};

TEST_F(MqttSave, SavesInTheRuntimeFolderIfTheStateFolderCannotBeWritten)
{
    change("first");
    block(bridge.store_path);
    ::testing::internal::CaptureStderr();
    change("second");
    EXPECT_TRUE(is_remembered("first"));
    EXPECT_TRUE(is_remembered("second"));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "sonobrik-mqtt: error: cannot save " + bridge.store_path + ": Is a directory; " +
                  bridge.spare_path + ": saved until the machine restarts\n");
}

TEST_F(MqttSave, TriesAgainAfterAFailureAlthoughNothingChanges)
{
    block(bridge.store_path);
    ::testing::internal::CaptureStderr();
    change("first");
    ::testing::internal::GetCapturedStderr();
    std::filesystem::remove(bridge.store_path + ".new");
    const gint64 failed = std::exchange(bridge.save_failed_at, G_MAXINT64 / 2);
    mqtt_save_changes(&bridge);
    EXPECT_FALSE(std::filesystem::exists(bridge.store_path)) << "it tries at most once a second";
    bridge.save_failed_at = failed - G_USEC_PER_SEC;
    mqtt_save_changes(&bridge);
    std::filesystem::remove(bridge.spare_path);
    EXPECT_TRUE(is_remembered("first"));
    EXPECT_EQ(bridge.save_failed_at, 0);
}

TEST_F(MqttSave, TheSpareFileDoesNotOutliveASaveInTheStateFolder)
{
    mqtt_memory_add(&bridge.store.memory, "old", 1);
    mqtt_save_quickly(&bridge);
    change("new");
    EXPECT_FALSE(std::filesystem::exists(bridge.spare_path));
    /* A process that was killed in between has left one. */
    mqtt_save_quickly(&bridge);
    bridge.has_spare = false;
    bridge.store = {};
    mqtt_save_load(&bridge);
    change("newest");
    EXPECT_FALSE(std::filesystem::exists(bridge.spare_path));
    EXPECT_TRUE(is_remembered("newest"));
}

TEST_F(MqttSave, AnOlderSpareFileDoesNotCount)
{
    mqtt_memory_add(&bridge.store.memory, "old", 1);
    mqtt_save_quickly(&bridge);
    EXPECT_TRUE(is_remembered("old"));
    bridge.store.memory = {};
    bridge.has_spare = false; /* it cannot be removed */
    change("new");
    EXPECT_FALSE(is_remembered("old"));
    EXPECT_TRUE(is_remembered("new"));
}

} // namespace
