#include "sonobrik_group.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "log_test.h"
#include "memory_trim.h"
#include "sonobrik_group_conf.h"
#include "store_folder.h"

namespace
{

using Names = std::vector<std::string>;

constexpr const char *DOOR = R"({"location": "/door.wav", "name": "Door", "type": "audio"})";

constexpr const char *UNKNOWN = "sonobrik_group_conf_get_max_group_index can not determine the "
                                "value of 'root.SonoBrik.MaxGroups'";
constexpr const char *NO_INDEX =
    "sonobrik_group_create_group invalid index or no more indexes available";

int trims;

class GroupLifecycle : public LogTest
{
  protected:
    GroupLifecycle()
    {
        alarm(20); /* kills the test if it blocks on a file */
        trims = 0;
    }

    ~GroupLifecycle() override
    {
        alarm(0);
    }

    /* Creates a record with this index, -1 for the lowest free one. Returns its index, or -100. */
    static gint32 create(gint32 index)
    {
        gint32 number = index;
        if (sonobrik_group_create_group(&number, "/door.wav", "Door", "audio")) {
            return number;
        }
        EXPECT_EQ(number, index) << "a failure leaves the index alone";
        return -100;
    }

    void expect_taken(gint32 index)
    {
        expect_log(G_LOG_LEVEL_WARNING, "sonobrik_group_create_group a group with index " +
                                            std::to_string(index) + " already exists");
        expect_no_log();
    }

    void expect_not_listed(const std::string &name)
    {
        expect_log(G_LOG_LEVEL_WARNING,
                   "sonobrik_group_get_parameter_list failed to create parameter from file "
                   "clip_data/" +
                       name);
    }

    StoreFolder store;
};

/* Returns the files of all records, in the order of the list. */
Names listed()
{
    Names names;
    GSList *groups = sonobrik_group_get_parameter_list();
    for (GSList *node = groups; node; node = node->next) {
        auto *group = static_cast<SonobrikGroup *>(node->data);
        names.push_back("M" + std::to_string(group->index) + ".json");
    }
    sonobrik_group_release_parameter_list(&groups);
    return names;
}

} // namespace

/* Replaces the real one. */
void memory_trim_later()
{
    trims++;
}

/* Creating. */

TEST_F(GroupLifecycle, CreatedFileHasTheExactFormat)
{
    gint32 index = 7;
    EXPECT_TRUE(sonobrik_group_create_group(&index, "/etc/audioclips/door.wav", "Door", "audio"));
    EXPECT_EQ(index, 7);
    EXPECT_EQ(StoreFolder::read("M7.json"),
              record_file("/etc/audioclips/door.wav", "Door", "audio"));
    EXPECT_EQ(StoreFolder::names(), Names{"M7.json"});
    expect_no_log();
}

TEST_F(GroupLifecycle, NullTextsBecomeEmpty)
{
    gint32 index = -1;
    EXPECT_TRUE(sonobrik_group_create_group(&index, nullptr, nullptr, nullptr));
    EXPECT_EQ(StoreFolder::read("M0.json"), record_file("", "", ""));
    expect_no_log();
}

TEST_F(GroupLifecycle, NullIndexCreatesNothing)
{
    EXPECT_FALSE(sonobrik_group_create_group(nullptr, "/door.wav", "Door", "audio"));
    expect_log(G_LOG_LEVEL_WARNING,
               "sonobrik_group_create_group was called with an invalid argument");
    expect_no_log();
    EXPECT_TRUE(StoreFolder::names().empty());
}

TEST_F(GroupLifecycle, IndexesAreAssignedUpToTheBoundWhichAFullStoreReports)
{
    fake_platform.parameter = "3";
    EXPECT_EQ(create(-1), 0);
    EXPECT_EQ(create(-1), 1);
    EXPECT_EQ(create(-1), 2);
    expect_no_log();
    const std::string last = StoreFolder::read("M2.json");
    EXPECT_EQ(create(-1), -100);
    expect_taken(2);
    EXPECT_EQ(StoreFolder::read("M2.json"), last);
    EXPECT_EQ(StoreFolder::names().size(), 3U);
}

TEST_F(GroupLifecycle, LowestFreeIndexIsAssigned)
{
    StoreFolder::write("M0.json", DOOR);
    StoreFolder::write("M2.json", DOOR);
    EXPECT_EQ(create(-1), 1);
    EXPECT_EQ(create(-1), 3);
    expect_no_log();
}

TEST_F(GroupLifecycle, HighestIndexIsAssignedLast)
{
    fake_platform.parameter = "2";
    StoreFolder::write("M0.json", DOOR);
    EXPECT_EQ(create(-1), 1);
    expect_no_log();
}

TEST_F(GroupLifecycle, StoreForOneRecordCanBeFilled)
{
    fake_platform.parameter = "1";
    EXPECT_EQ(create(-1), 0);
    expect_no_log();
    EXPECT_EQ(create(-1), -100);
    expect_taken(0);
}

TEST_F(GroupLifecycle, AnyKindOfFileTakesTheIndex)
{
    std::filesystem::create_directory("clip_data/M0.json");
    StoreFolder::write("M1.json", "torn");
    ASSERT_EQ(mkfifo("clip_data/M2.json", 0600), 0);
    EXPECT_EQ(create(-1), 3);
    expect_no_log();
}

TEST_F(GroupLifecycle, BrokenLinkDoesNotTakeTheIndex)
{
    StoreFolder::write("M0.json", DOOR);
    std::filesystem::create_symlink("missing", "clip_data/M1.json");
    StoreFolder::write("M2.json", DOOR);
    EXPECT_EQ(create(-1), 1);
    EXPECT_EQ(create(-1), 3);
    expect_no_log();
}

TEST_F(GroupLifecycle, LinkToAFileTakesTheIndex)
{
    StoreFolder::write("M1.json", DOOR);
    std::filesystem::create_symlink("M1.json", "clip_data/M0.json");
    EXPECT_EQ(create(-1), 2);
    expect_no_log();
}

TEST_F(GroupLifecycle, RecordsAboveTheBoundLeaveTheHighestIndexToTheSearch)
{
    fake_platform.parameter = "2";
    for (const char *name : {"M0.json", "M1.json", "M2.json", "M3.json"}) {
        StoreFolder::write(name, DOOR);
    }
    EXPECT_EQ(create(-1), -100);
    expect_taken(1);
}

/* Counting. */

TEST_F(GroupLifecycle, FilesAreCountedUpToTheFirstGap)
{
    EXPECT_EQ(sonobrik_group_conf_count_files_without_gap(), 0);
    for (const auto &[name, count] : std::vector<std::pair<std::string, gint32>>{
             {"M1.json", 0}, {"M0.json", 2}, {"M3.json", 2}, {"M4.json", 2}, {"M2.json", 5}}) {
        StoreFolder::write(name, DOOR);
        EXPECT_EQ(sonobrik_group_conf_count_files_without_gap(), count) << name;
    }
    expect_no_log();
}

TEST_F(GroupLifecycle, FilesOfOtherNamesAreNotCounted)
{
    for (const char *name : {"M.json", "Mx.json", "M00.json", "M+0.json", "M-0.json", "M0.json.bak",
                             ".M0.json.new", "N0.json", "m0.json", "M0"}) {
        StoreFolder::write(name, DOOR);
    }
    EXPECT_EQ(sonobrik_group_conf_count_files_without_gap(), 0);
    expect_no_log();
}

TEST_F(GroupLifecycle, LinksAreNotCounted)
{
    StoreFolder::write("M0.json", DOOR);
    std::filesystem::create_symlink("M0.json", "clip_data/M1.json");
    StoreFolder::write("M2.json", DOOR);
    EXPECT_EQ(sonobrik_group_conf_count_files_without_gap(), 1);
}

TEST_F(GroupLifecycle, NoFilesAreCountedInAMissingFolder)
{
    std::filesystem::remove("clip_data");
    EXPECT_EQ(sonobrik_group_conf_count_files_without_gap(), 0);
    expect_no_log();
}

TEST_F(GroupLifecycle, TakenIndexIsRefused)
{
    StoreFolder::write("M4.json", DOOR);
    EXPECT_EQ(create(4), -100);
    expect_taken(4);
    EXPECT_EQ(StoreFolder::read("M4.json"), DOOR);
}

TEST_F(GroupLifecycle, InvalidIndexIsRefused)
{
    fake_platform.parameter = "4";
    for (const gint32 index : {4, 5, -2, G_MININT32, G_MAXINT32}) {
        EXPECT_EQ(create(index), -100);
        expect_log(G_LOG_LEVEL_WARNING, NO_INDEX);
        expect_no_log();
    }
    EXPECT_TRUE(StoreFolder::names().empty());
}

TEST_F(GroupLifecycle, NothingIsCreatedWhileTheBoundIsUnknown)
{
    fake_platform.parameter.reset();
    EXPECT_EQ(create(-1), -100);
    expect_log(G_LOG_LEVEL_WARNING, UNKNOWN);
    expect_log(G_LOG_LEVEL_WARNING, UNKNOWN);
    expect_log(G_LOG_LEVEL_WARNING, NO_INDEX);
    EXPECT_EQ(create(0), -100);
    expect_log(G_LOG_LEVEL_WARNING, UNKNOWN);
    expect_log(G_LOG_LEVEL_WARNING, NO_INDEX);
    expect_no_log();
    EXPECT_TRUE(StoreFolder::names().empty());
}

TEST_F(GroupLifecycle, NothingIsCreatedInAStoreForNoRecords)
{
    for (const char *parameter : {"0", "-3"}) {
        fake_platform.parameter = parameter;
        EXPECT_EQ(create(-1), -100);
        expect_log(G_LOG_LEVEL_WARNING, NO_INDEX);
        expect_no_log();
    }
    EXPECT_TRUE(StoreFolder::names().empty());
}

TEST_F(GroupLifecycle, RecordThatCannotBeSavedIsNotCreated)
{
    fake_platform.write_fails = true;
    EXPECT_EQ(create(-1), -100);
    expect_log(G_LOG_LEVEL_WARNING,
               "json_utils_save_to_file failed to save json data to file 'clip_data/M0.json'");
    expect_log(LOG_LEVEL_ERROR, "sonobrik_group_save failed to save json object");
    expect_log(G_LOG_LEVEL_WARNING,
               "sonobrik_group_create_group Failed to save the new parameter group");
    expect_no_log();
}

/* Removing. */

TEST_F(GroupLifecycle, RecordIsRemoved)
{
    StoreFolder::write("M4.json", DOOR);
    StoreFolder::write("M5.json", DOOR);
    EXPECT_TRUE(sonobrik_group_remove_group(4));
    EXPECT_EQ(StoreFolder::names(), Names{"M5.json"});
    expect_no_log();
}

TEST_F(GroupLifecycle, BrokenRecordIsRemoved)
{
    StoreFolder::write("M4.json", "torn");
    EXPECT_TRUE(sonobrik_group_remove_group(4));
    EXPECT_TRUE(StoreFolder::names().empty());
    expect_no_log();
}

TEST_F(GroupLifecycle, MissingRecordIsNotRemoved)
{
    EXPECT_FALSE(sonobrik_group_remove_group(4));
    expect_log(G_LOG_LEVEL_INFO,
               "sonobrik_group_remove_group file 'clip_data/M4.json' does not exit");
    expect_no_log();
}

TEST_F(GroupLifecycle, RecordThatCannotBeDeletedIsReported)
{
    std::filesystem::create_directories("clip_data/M4.json/full");
    EXPECT_FALSE(sonobrik_group_remove_group(4));
    expect_log(G_LOG_LEVEL_INFO,
               "sonobrik_group_remove_group failed to remove file 'clip_data/M4.json'");
    expect_no_log();
}

TEST_F(GroupLifecycle, RecordAboveTheBoundIsNotRemoved)
{
    StoreFolder::write("M10.json", DOOR);
    EXPECT_FALSE(sonobrik_group_remove_group(10));
    expect_log(G_LOG_LEVEL_WARNING, "sonobrik_group_conf_get_file_path invalid index '10'");
    EXPECT_FALSE(sonobrik_group_remove_group(-1));
    expect_log(G_LOG_LEVEL_WARNING, "sonobrik_group_conf_get_file_path invalid index '-1'");
    expect_no_log();
    EXPECT_EQ(StoreFolder::names(), Names{"M10.json"});
}

/* Loading one. */

TEST_F(GroupLifecycle, RecordIsLoadedByItsIndex)
{
    StoreFolder::write("M4.json", DOOR);
    g_autoptr(SonobrikGroup) group = sonobrik_group_from_index(4);
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(group->index, 4);
    EXPECT_STREQ(group->name, "Door");
    expect_no_log();
}

TEST_F(GroupLifecycle, MissingRecordIsNullWithoutALogLine)
{
    EXPECT_EQ(sonobrik_group_from_index(4), nullptr);
    expect_no_log();
}

TEST_F(GroupLifecycle, RecordAboveTheBoundIsNotLoadedByItsIndex)
{
    StoreFolder::write("M10.json", DOOR);
    EXPECT_EQ(sonobrik_group_from_index(10), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "sonobrik_group_conf_get_file_path invalid index '10'");
    expect_no_log();
}

TEST_F(GroupLifecycle, BrokenRecordIsNotLoadedByItsIndex)
{
    StoreFolder::write("M4.json", "[]");
    EXPECT_EQ(sonobrik_group_from_index(4), nullptr);
    expect_log(LOG_LEVEL_ERROR, "sonobrik_group_json_unpack Failed to unpack object, error "
                                "'Expected object, got array'");
    expect_log(G_LOG_LEVEL_WARNING, "sonobrik_group_from_file could not obtain a parameter object");
    expect_no_log();
}

/* Loading all. */

TEST_F(GroupLifecycle, RecordsAreListedInTheFoldersOrder)
{
    for (const int index : {3, 11, 0, 7, 5, 12, 1, 9, 2}) {
        StoreFolder::write("M" + std::to_string(index) + ".json", DOOR);
    }
    const Names in_folder = StoreFolder::names();
    ASSERT_EQ(in_folder.size(), 9U);
    EXPECT_FALSE(std::is_sorted(in_folder.begin(), in_folder.end())) << "this would show nothing";
    EXPECT_EQ(listed(), in_folder);
    expect_no_log();
}

TEST_F(GroupLifecycle, RecordsAreListedWithTheirTexts)
{
    StoreFolder::write("M4.json", record_file("/door.wav", "Door", "audio", "{\"a\": 1}"));
    GSList *groups = sonobrik_group_get_parameter_list();
    ASSERT_EQ(g_slist_length(groups), 1U);
    auto *group = static_cast<SonobrikGroup *>(groups->data);
    EXPECT_EQ(group->index, 4);
    EXPECT_STREQ(group->location, "/door.wav");
    EXPECT_STREQ(group->name, "Door");
    EXPECT_STREQ(group->type, "audio");
    EXPECT_EQ(compact(group->metadata), R"({"a":1})");
    sonobrik_group_release_parameter_list(&groups);
    EXPECT_EQ(groups, nullptr);
}

TEST_F(GroupLifecycle, EmptyFolderGivesANullList)
{
    EXPECT_EQ(sonobrik_group_get_parameter_list(), nullptr);
    expect_no_log();
}

TEST_F(GroupLifecycle, MissingFolderGivesANullList)
{
    std::filesystem::remove("clip_data");
    EXPECT_EQ(sonobrik_group_get_parameter_list(), nullptr);
    expect_log(G_LOG_LEVEL_INFO, "The specified directory of 'clip_data/M*.json' does not exist");
    expect_no_log();
}

TEST_F(GroupLifecycle, UnreadableFolderGivesANullList)
{
    StoreFolder::write("M4.json", DOOR);
    std::filesystem::permissions("clip_data", std::filesystem::perms::none);
    const UnprivilegedFileAccess user;
    EXPECT_EQ(sonobrik_group_get_parameter_list(), nullptr);
    expect_log(G_LOG_LEVEL_INFO, "The specified directory of 'clip_data/M*.json' does not exist");
    expect_no_log();
}

TEST_F(GroupLifecycle, FilesOfOtherNamesAreNotListed)
{
    for (const char *name : {"M4.json.bak", ".M4.json.new", "N4.json", "m4.json", "M4"}) {
        StoreFolder::write(name, DOOR);
    }
    EXPECT_EQ(sonobrik_group_get_parameter_list(), nullptr);
    expect_no_log();
}

TEST_F(GroupLifecycle, RecordAboveTheBoundIsListed)
{
    fake_platform.parameter = "1";
    StoreFolder::write("M99.json", DOOR);
    EXPECT_EQ(listed(), Names{"M99.json"});
    expect_no_log();
}

/* One broken file beside a good record: it is logged and left out. */
class BrokenFileTest : public GroupLifecycle
{
  protected:
    BrokenFileTest()
    {
        StoreFolder::write("M1.json", DOOR);
    }
};

TEST_F(BrokenFileTest, TruncatedFileIsLeftOut)
{
    StoreFolder::write("M4.json", "{");
    EXPECT_EQ(listed(), Names{"M1.json"});
    expect_log(G_LOG_LEVEL_WARNING,
               "Failed to load JSON, line 1 error 'string or '}' expected near end of file'");
    expect_log(LOG_LEVEL_ERROR, "sonobrik_group_from_file could not obtain json object from file "
                                "'clip_data/M4.json'");
    expect_not_listed("M4.json");
    expect_no_log();
}

TEST_F(BrokenFileTest, FolderIsLeftOut)
{
    std::filesystem::create_directory("clip_data/M5.json");
    EXPECT_EQ(listed(), Names{"M1.json"});
    expect_log(G_LOG_LEVEL_WARNING,
               "Failed to load JSON, line 1 error ''[' or '{' expected near end of file'");
    expect_log(LOG_LEVEL_ERROR, "sonobrik_group_from_file could not obtain json object from file "
                                "'clip_data/M5.json'");
    expect_not_listed("M5.json");
    expect_no_log();
}

TEST_F(BrokenFileTest, FifoIsLeftOut)
{
    ASSERT_EQ(mkfifo("clip_data/M6.json", 0600), 0);
    EXPECT_EQ(listed(), Names{"M1.json"});
    expect_log(G_LOG_LEVEL_WARNING, "Failed to load JSON, line -1 error 'not a regular file'");
    expect_log(LOG_LEVEL_ERROR, "sonobrik_group_from_file could not obtain json object from file "
                                "'clip_data/M6.json'");
    expect_not_listed("M6.json");
    expect_no_log();
}

TEST_F(BrokenFileTest, FileWithoutANumberIsLeftOut)
{
    StoreFolder::write("Mx.json", DOOR);
    EXPECT_EQ(listed(), Names{"M1.json"});
    expect_log(G_LOG_LEVEL_WARNING, "Could not obtain parameter index from 'x'");
    expect_log(LOG_LEVEL_ERROR, "No index value found in 'clip_data/Mx.json'");
    expect_not_listed("Mx.json");
    expect_no_log();
}

TEST_F(BrokenFileTest, FileThatIsNotARecordIsLeftOut)
{
    StoreFolder::write("M7.json", R"({"location": "/a", "metadata": {}})");
    EXPECT_EQ(listed(), Names{"M1.json"});
    expect_log(LOG_LEVEL_ERROR, "sonobrik_group_json_unpack Failed to unpack object, error "
                                "'Object item not found: name'");
    expect_log(G_LOG_LEVEL_WARNING, "sonobrik_group_from_file could not obtain a parameter object");
    expect_not_listed("M7.json");
    expect_no_log();
}

TEST_F(BrokenFileTest, RecordOverALimitIsLeftOut)
{
    const std::string metadata = "{\"a\":\"" + std::string(16384, 'x') + "\"}";
    const struct {
        std::string record;
        const char *reason;
    } cases[] = {
        {record_file("/" + std::string(4095, 'x'), "A", "audio"),
         "has a location of more than 4095 bytes"},
        {record_file("/a", std::string(256, 'x'), "audio"), "has a name of more than 255 bytes"},
        {record_file("/a", "A", std::string(256, 'x')), "has a type of more than 255 bytes"},
        {record_file("/a", "A", "audio", metadata), "has metadata of more than 16384 bytes"},
    };
    for (const auto &[record, reason] : cases) {
        StoreFolder::write("M7.json", record);
        EXPECT_EQ(listed(), Names{"M1.json"});
        expect_log(G_LOG_LEVEL_WARNING,
                   std::string("Left out 'clip_data/M7.json', which ") + reason);
        expect_no_log();
    }
}

TEST_F(GroupLifecycle, OnlyBrokenFilesGiveANullList)
{
    StoreFolder::write("Mx.json", DOOR);
    EXPECT_EQ(sonobrik_group_get_parameter_list(), nullptr);
    clear_log();
}

/* Releasing. */

TEST_F(GroupLifecycle, ReleasingANullListDoesNothing)
{
    sonobrik_group_release_parameter_list(nullptr);
    GSList *none = nullptr;
    sonobrik_group_release_parameter_list(&none);
    EXPECT_EQ(none, nullptr);
}

TEST_F(GroupLifecycle, ReleasedRecordsReleaseTheirMetadata)
{
    json_t *metadata = json_object();
    GSList *groups =
        g_slist_prepend(nullptr, new_record(1, "/a", "A", "audio", json_incref(metadata)));
    sonobrik_group_release_parameter_list(&groups);
    EXPECT_EQ(groups, nullptr);
    EXPECT_EQ(metadata->refcount, 1U);
    json_decref(metadata);
}

/* Memory. */

TEST_F(GroupLifecycle, MemoryOfALargeListIsReturned)
{
    for (int i = 0; i < 500; i++) {
        StoreFolder::write("M" + std::to_string(i) + ".json", DOOR);
    }
    GSList *list = sonobrik_group_get_parameter_list();
    EXPECT_EQ(trims, 0);
    sonobrik_group_release_parameter_list(&list);
    EXPECT_EQ(trims, 1);
}

TEST_F(GroupLifecycle, MemoryOfASmallListIsKept)
{
    for (int i = 0; i < 499; i++) {
        StoreFolder::write("M" + std::to_string(i) + ".json", DOOR);
    }
    GSList *list = sonobrik_group_get_parameter_list();
    sonobrik_group_release_parameter_list(&list);
    EXPECT_EQ(trims, 0);
}
