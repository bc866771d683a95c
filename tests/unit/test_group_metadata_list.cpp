#include "sonobrik_group_metadata.h"

#include <string>

#include "autoptr.h"
#include "failing_calls.h"
#include "fake_discovery.h"
#include "fake_service_frame.h"
#include "log_test.h"
#include "store_folder.h"

namespace
{

constexpr const char *NONCHARACTER = "\xEF\xBF\xBE"; /* U+FFFE */

/* Tests the metadata of all stored records. */
class GroupMetadataList : public LogTest
{
  protected:
    GroupMetadataList()
    {
        discovery = {};
        discovery.found["/etc/audioclips/door.wav"] = {};
    }

    ~GroupMetadataList() override
    {
        EXPECT_EQ(discovery.handles, 0) << "a handle was kept";
    }

    static std::string reply_of_all()
    {
        g_autofree char *text = sonobrik_group_get_metadata();
        return text ? text : "null pointer";
    }

    void expect_not_created(const std::string &location)
    {
        expect_log(G_LOG_LEVEL_WARNING,
                   "Failed to create metadata for clip at location: " + location);
    }

    /* Expects the log line for this location, and no other. */
    void expect_left_out(const std::string &location)
    {
        expect_log(LOG_LEVEL_ERROR, "Could not obtain metadata for clip at location: " + location);
        expect_no_log();
    }

    /* Expects the log line for the file `name` that is left out, and no other. */
    void expect_not_listed(const std::string &name)
    {
        expect_log(G_LOG_LEVEL_WARNING, "Left out 'clip_data/" + name +
                                            "', which contains text that D-Bus cannot transmit");
        expect_no_log();
    }

    StoreFolder store;
    FailingCalls calls;
};

} // namespace

TEST_F(GroupMetadataList, NoRecordsGiveAnEmptyArray)
{
    EXPECT_EQ(reply_of_all(), "[]");
    expect_no_log();
}

TEST_F(GroupMetadataList, AllRecordsAreReturnedAsCompactJson)
{
    StoreFolder::write(
        "M4.json", record_file("/etc/audioclips/door.wav", "A \\\"d\\\" \xC3\xBC", "audio", VALID));
    EXPECT_EQ(reply_of_all(),
              "[{\"4\":{\"name\":\"A \\\"d\\\" \xC3\xBC\",\"fileName\":\"door.wav\","
              "\"mediaTypes\":[\"audio/x-wav\"],\"size\":5,\"duration\":50}}]");
    expect_no_log();
}

TEST_F(GroupMetadataList, RecordsAreReturnedInTheOrderOfTheFolder)
{
    std::string expected;
    for (const int index : {3, 11, 0, 7, 5, 12, 1, 9, 2}) {
        StoreFolder::write("M" + std::to_string(index) + ".json",
                           record_file("/a", "A", "audio", VALID));
    }
    for (const std::string &name : StoreFolder::names()) {
        expected += (expected.empty() ? "[{\"" : ",{\"") + name.substr(1, name.find('.') - 1) +
                    R"(":{"name":"A","fileName":"a","mediaTypes":["audio/x-wav"],"size":5,)"
                    R"("duration":50}})";
    }
    EXPECT_EQ(reply_of_all(), expected + "]");
}

TEST_F(GroupMetadataList, MetadataOfANewRecordIsComputedAndSaved)
{
    StoreFolder::write("M4.json", record_file("/etc/audioclips/door.wav", "Door", "audio"));
    EXPECT_EQ(reply_of_all(), R"([{"4":{"name":"Door","fileName":"door.wav",)"
                              R"("mediaTypes":["audio/x-wav"],"size":5,"duration":50}}])");
    EXPECT_EQ(StoreFolder::read("M4.json"),
              record_file("/etc/audioclips/door.wav", "Door", "audio", VALID_FILE_METADATA));
    expect_no_log();
}

TEST_F(GroupMetadataList, MissingClipIsLeftOutAmongGoodOnes)
{
    StoreFolder::write("M1.json", record_file("/gone.wav", "Gone", "audio"));
    StoreFolder::write("M4.json", record_file("/etc/audioclips/door.wav", "Door", "audio"));
    EXPECT_EQ(reply_of_all(), R"([{"4":{"name":"Door","fileName":"door.wav",)"
                              R"("mediaTypes":["audio/x-wav"],"size":5,"duration":50}}])");
    expect_log(G_LOG_LEVEL_WARNING, "Could not get metadata for location: /gone.wav");
    expect_not_created("/gone.wav");
    expect_left_out("/gone.wav");
    EXPECT_EQ(StoreFolder::read("M1.json"), record_file("/gone.wav", "Gone", "audio"));
}

TEST_F(GroupMetadataList, RecordAboveTheBoundIsReturnedFromItsFileButNotComputed)
{
    StoreFolder::write("M99.json", record_file("/a", "A", "audio", VALID));
    StoreFolder::write("M98.json", record_file("/etc/audioclips/door.wav", "Door", "audio"));
    EXPECT_EQ(reply_of_all(), R"([{"99":{"name":"A","fileName":"a",)"
                              R"("mediaTypes":["audio/x-wav"],"size":5,"duration":50}}])");
    expect_log(G_LOG_LEVEL_WARNING, "sonobrik_group_conf_get_file_path invalid index '98'");
    expect_log(LOG_LEVEL_ERROR, "sonobrik_group_save failed to save json object");
    expect_log(LOG_LEVEL_ERROR, "Failed to save valid media metadata");
    expect_not_created("/etc/audioclips/door.wav");
    expect_left_out("/etc/audioclips/door.wav");
}

/* Texts that Jansson accepts and sd-bus refuses. */

TEST_F(GroupMetadataList, RecordWithARefusedNameIsLeftOut)
{
    StoreFolder::write("M1.json", record_file("/a", NONCHARACTER, "audio", VALID));
    StoreFolder::write("M4.json", record_file("/a", "A", "audio", VALID));
    EXPECT_EQ(reply_of_all(), R"([{"4":{"name":"A","fileName":"a",)"
                              R"("mediaTypes":["audio/x-wav"],"size":5,"duration":50}}])");
    expect_not_listed("M1.json");
}

TEST_F(GroupMetadataList, RecordWithARefusedFileNameIsLeftOut)
{
    const std::string location = std::string("/a/") + NONCHARACTER;
    StoreFolder::write("M1.json", record_file(location, "N", "audio", VALID));
    EXPECT_EQ(reply_of_all(), "[]");
    expect_not_listed("M1.json");
}

TEST_F(GroupMetadataList, RecordWithARefusedMediaTypeIsLeftOut)
{
    StoreFolder::write(
        "M1.json",
        record_file("/a", "N", "audio", R"({"mediaTypes":{"\uFFFE":1},"size":5,"duration":50})"));
    EXPECT_EQ(reply_of_all(), "[]");
    expect_not_listed("M1.json");
}

TEST_F(GroupMetadataList, RecordWithARefusedNestedTextIsLeftOut)
{
    StoreFolder::write(
        "M1.json",
        record_file("/a", "A", "audio",
                    R"({"mediaTypes":[["a"],{"b":["\uFFFE"]}],"size":5,"duration":50})"));
    EXPECT_EQ(reply_of_all(), "[]");
    expect_not_listed("M1.json");
}

/* Slow files. */

TEST_F(GroupMetadataList, WatchdogIsFedBetweenTwoFiles)
{
    StoreFolder::write("M1.json", record_file("/slow.wav", "A", "audio"));
    StoreFolder::write("M2.json", record_file("/slow.wav", "B", "audio"));
    StoreFolder::write("M3.json", record_file("/slow.wav", "C", "audio"));
    watchdog_feeds = 0;
    reply_of_all();
    /* Once for each file that is loaded, then once before each inspection. */
    EXPECT_EQ(discovery.feeds, (std::vector<int>{4, 5, 6}));
    clear_log();
}

TEST_F(GroupMetadataList, FilesOfOneCallShareAMemo)
{
    StoreFolder::write("M1.json", record_file("/slow.wav", "A", "audio"));
    StoreFolder::write("M2.json", record_file("/slow.wav", "B", "audio"));
    reply_of_all();
    ASSERT_EQ(discovery.memos.size(), 2U);
    EXPECT_NE(discovery.memos[0], nullptr);
    EXPECT_EQ(discovery.memos[0], discovery.memos[1]);
    clear_log();
}

/* A reply that is too long for the bus. */

/* Writes 420 records whose locations consist of 4095 times the JSON text `character`. */
static void write_large_records(const char *character)
{
    std::string location;
    for (int i = 0; i < 4095; i++) {
        location += character;
    }
    const std::string metadata =
        R"({"mediaTypes":")" + std::string(16000, 'x') + R"(","size":5,"duration":50})";
    for (int i = 0; i < 420; i++) {
        StoreFolder::write("M" + std::to_string(i) + ".json",
                           record_file(location, "A", "audio", metadata));
    }
}

TEST_F(GroupMetadataList, RecordsBeyondTheBudgetOfTheReplyAreLeftOut)
{
    /* Each takes 24,570 + 16,000 bytes and some more, so 411 are too many. */
    write_large_records("\\u0001");
    const std::string reply = reply_of_all();
    EXPECT_LE(reply.size(), size_t{16} * 1024 * 1024);
    g_autoptr(json_t) entries = json_loads(reply.c_str(), 0, nullptr);
    const size_t listed = json_array_size(entries);
    EXPECT_GT(listed, 400U);
    EXPECT_LT(listed, 414U);
    expect_log(G_LOG_LEVEL_WARNING,
               "Left out " + std::to_string(420 - listed) +
                   " clips, because the reply to GetMetadata would exceed 16777216 bytes");
    expect_no_log();
}

TEST_F(GroupMetadataList, RecordsThatOnlySeemTooLongAreReturned)
{
    /* A quote may take six bytes as far as the upper bound knows, but takes two. */
    write_large_records("\\\"");
    const std::string reply = reply_of_all();
    g_autoptr(json_t) entries = json_loads(reply.c_str(), 0, nullptr);
    EXPECT_EQ(json_array_size(entries), 420U);
    expect_no_log();
}

/* Allocation failures. */

TEST_F(GroupMetadataList, FailureToCreateTheArrayReturnsNull)
{
    StoreFolder::write("M4.json", record_file("/a", "A", "audio", VALID));
    calls.fail("json_array");
    EXPECT_EQ(sonobrik_group_get_metadata(), nullptr);
    expect_no_log();
}

TEST_F(GroupMetadataList, ObjectThatCannotBeAppendedIsLeftOut)
{
    StoreFolder::write("M4.json", record_file("/a", "A", "audio", VALID));
    calls.fail("json_array_append_new");
    EXPECT_EQ(reply_of_all(), "[]");
    expect_log(LOG_LEVEL_ERROR, "Failed to append metadata");
    expect_no_log();
}

TEST_F(GroupMetadataList, ObjectThatCannotBeWrittenIsLeftOut)
{
    for (const int index : {3, 4, 5}) {
        StoreFolder::write("M" + std::to_string(index) + ".json",
                           record_file("/a", "A", "audio", VALID));
    }
    const std::string all = reply_of_all();
    for (const int number : {1, 2, 3}) {
        calls.fail_one("json_dump_callback", number);
        g_autoptr(json_t) entries = json_loads(reply_of_all().c_str(), 0, nullptr);
        EXPECT_EQ(json_array_size(entries), 2U);
        expect_log(LOG_LEVEL_ERROR, "Failed to append metadata");
        expect_no_log();
    }
    EXPECT_EQ(reply_of_all(), all);
}
