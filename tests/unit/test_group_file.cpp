#include "sonobrik_group.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "autoptr.h"
#include "failing_calls.h"
#include "log_test.h"
#include "store_folder.h"

namespace
{

constexpr const char *DOOR = R"({"location": "/door.wav", "name": "Door", "type": "audio"})";

constexpr const char *NOT_PACKED = "sonobrik_group_save failed to pack json object";
constexpr const char *NOT_SAVED = "sonobrik_group_save failed to save json object";
constexpr const char *NO_RECORD = "sonobrik_group_from_file could not obtain a parameter object";

class GroupFile : public LogTest
{
  protected:
    GroupFile()
    {
        alarm(20); /* kills the test if it blocks on a file */
    }

    ~GroupFile() override
    {
        alarm(0);
    }

    /* Writes `text` to "clip_data/M4.json" and loads the file. */
    static SonobrikGroup *load(const std::string &text)
    {
        StoreFolder::write("M4.json", text);
        return sonobrik_group_from_file("clip_data/M4.json");
    }

    /* Expects the two log lines of a file that cannot be read as JSON. */
    void expect_no_json(const std::string &name, int line, const std::string &error)
    {
        expect_log(G_LOG_LEVEL_WARNING,
                   "Failed to load JSON, line " + std::to_string(line) + " error '" + error + "'");
        expect_log(LOG_LEVEL_ERROR,
                   "sonobrik_group_from_file could not obtain json object from file 'clip_data/" +
                       name + "'");
        expect_no_log();
    }

    /* Expects the two log lines of a document that is not a record. */
    void expect_no_record(const std::string &error)
    {
        expect_log(LOG_LEVEL_ERROR,
                   "sonobrik_group_json_unpack Failed to unpack object, error '" + error + "'");
        expect_log(G_LOG_LEVEL_WARNING, NO_RECORD);
        expect_no_log();
    }

    /* Expects the two log lines of a record that cannot be packed. */
    void expect_not_packed(const std::string &error)
    {
        expect_log(LOG_LEVEL_ERROR,
                   "sonobrik_group_json_pack Failed to create object, error '" + error + "'");
        expect_log(LOG_LEVEL_ERROR, NOT_PACKED);
        expect_no_log();
    }

    StoreFolder store;
};

} // namespace

/* Saving. */

TEST_F(GroupFile, SavedFileHasTheExactFormat)
{
    g_autoptr(SonobrikGroup) group = new_record(
        4, "/etc/audioclips/a \"b\".wav", "T\xC3\xBCr", "audio",
        json_pack("{s:[s], s:i, s:i}", "mediaTypes", "audio/x-wav", "size", 5, "duration", 50));
    EXPECT_TRUE(sonobrik_group_save(group));
    EXPECT_EQ(StoreFolder::read("M4.json"), "{\n"
                                            "  \"location\": \"/etc/audioclips/a \\\"b\\\".wav\",\n"
                                            "  \"name\": \"T\xC3\xBCr\",\n"
                                            "  \"type\": \"audio\",\n"
                                            "  \"metadata\": {\n"
                                            "    \"mediaTypes\": [\n"
                                            "      \"audio/x-wav\"\n"
                                            "    ],\n"
                                            "    \"size\": 5,\n"
                                            "    \"duration\": 50\n"
                                            "  }\n"
                                            "}");
    expect_no_log();
}

TEST_F(GroupFile, RecordIsSavedThroughTheSyncedWrite)
{
    g_autoptr(SonobrikGroup) group = new_record(4, "/door.wav", "Door", "audio");
    EXPECT_TRUE(sonobrik_group_save(group));
    EXPECT_EQ(fake_platform.written, std::vector<std::string>{"clip_data/M4.json"});
    EXPECT_EQ(fake_platform.written_mode, std::vector<unsigned>{0644});
}

TEST_F(GroupFile, EmptyTextsAreSaved)
{
    g_autoptr(SonobrikGroup) group = new_record(0, "", "", "", json_object());
    EXPECT_TRUE(sonobrik_group_save(group));
    EXPECT_EQ(StoreFolder::read("M0.json"), record_file("", "", ""));
    expect_no_log();
}

TEST_F(GroupFile, MissingMetadataIsSavedAndKeptAsAnEmptyObject)
{
    g_autoptr(SonobrikGroup) group = new_record(0, "/door.wav", "Door", "audio");
    EXPECT_TRUE(sonobrik_group_save(group));
    EXPECT_EQ(StoreFolder::read("M0.json"), record_file("/door.wav", "Door", "audio", "{}"));
    EXPECT_EQ(compact(group->metadata), "{}");
    EXPECT_EQ(group->metadata->refcount, 1U);
}

TEST_F(GroupFile, SavingKeepsTheRecordsMetadata)
{
    g_autoptr(SonobrikGroup) group =
        new_record(0, "/door.wav", "Door", "audio", json_pack("{s:i}", "size", 5));
    EXPECT_TRUE(sonobrik_group_save(group));
    EXPECT_EQ(group->metadata->refcount, 1U);
    EXPECT_EQ(compact(group->metadata), R"({"size":5})");
}

TEST_F(GroupFile, MetadataOfAnyTypeIsSaved)
{
    g_autoptr(SonobrikGroup) group = new_record(0, "/door.wav", "Door", "audio", json_null());
    EXPECT_TRUE(sonobrik_group_save(group));
    EXPECT_EQ(StoreFolder::read("M0.json"), record_file("/door.wav", "Door", "audio", "null"));
}

TEST_F(GroupFile, NullRecordIsNotSaved)
{
    EXPECT_FALSE(sonobrik_group_save(nullptr));
    expect_log(LOG_LEVEL_ERROR, "sonobrik_group_save was called with an invalid 'param' argument");
    expect_no_log();
}

TEST_F(GroupFile, RecordWithoutATextIsNotSaved)
{
    g_autoptr(SonobrikGroup) group = new_record(0, "/door.wav", "Door", "audio");
    for (char **field : {&group->location, &group->name, &group->type}) {
        char *text = g_steal_pointer(field);
        EXPECT_FALSE(sonobrik_group_save(group));
        expect_log(LOG_LEVEL_ERROR,
                   "sonobrik_group_save was called with an invalid 'param' argument");
        *field = text;
    }
    expect_no_log();
    EXPECT_TRUE(StoreFolder::names().empty());
    EXPECT_EQ(group->metadata, nullptr);
}

TEST_F(GroupFile, RecordAboveTheBoundIsNotSaved)
{
    g_autoptr(SonobrikGroup) group = new_record(10, "/door.wav", "Door", "audio");
    EXPECT_FALSE(sonobrik_group_save(group));
    expect_log(G_LOG_LEVEL_WARNING, "sonobrik_group_conf_get_file_path invalid index '10'");
    expect_log(LOG_LEVEL_ERROR, NOT_SAVED);
    expect_no_log();
    EXPECT_TRUE(StoreFolder::names().empty());
}

TEST_F(GroupFile, FailedWriteKeepsTheOldFile)
{
    StoreFolder::write("M4.json", DOOR);
    g_autoptr(SonobrikGroup) group = new_record(4, "/bell.wav", "Bell", "audio");
    fake_platform.write_fails = true;
    EXPECT_FALSE(sonobrik_group_save(group));
    expect_log(G_LOG_LEVEL_WARNING,
               "json_utils_save_to_file failed to save json data to file 'clip_data/M4.json'");
    expect_log(LOG_LEVEL_ERROR, NOT_SAVED);
    expect_no_log();
    EXPECT_EQ(StoreFolder::read("M4.json"), DOOR);
}

TEST_F(GroupFile, RecordIsNotSavedWithoutTheFolder)
{
    std::filesystem::remove("clip_data");
    g_autoptr(SonobrikGroup) group = new_record(4, "/door.wav", "Door", "audio");
    EXPECT_FALSE(sonobrik_group_save(group));
    expect_log(G_LOG_LEVEL_WARNING,
               "json_utils_save_to_file failed to save json data to file 'clip_data/M4.json'");
    expect_log(LOG_LEVEL_ERROR, NOT_SAVED);
    expect_no_log();
}

TEST_F(GroupFile, TextThatIsNotUtf8IsNotSaved)
{
    StoreFolder::write("M4.json", DOOR);
    g_autoptr(SonobrikGroup) group = new_record(4, "/door.wav", "D\xFF", "audio", json_object());
    EXPECT_FALSE(sonobrik_group_save(group));
    expect_not_packed("Invalid UTF-8 string");
    EXPECT_EQ(StoreFolder::read("M4.json"), DOOR);
    EXPECT_EQ(group->metadata->refcount, 1U);
}

TEST_F(GroupFile, DocumentThatCannotBePackedIsNotSaved)
{
    FailingCalls calls;
    calls.fail("json_pack_ex");
    g_autoptr(SonobrikGroup) group = new_record(4, "/door.wav", "Door", "audio");
    EXPECT_FALSE(sonobrik_group_save(group));
    expect_not_packed("Out of memory");
    EXPECT_TRUE(StoreFolder::names().empty());
}

/* GLib and Jansson accept noncharacters; sd-bus refuses a message that contains one. */
class GroupFileNoncharacter : public GroupFile, public ::testing::WithParamInterface<gunichar>
{
  protected:
    GroupFileNoncharacter()
    {
        char bytes[6];
        text = "a" + std::string(bytes, g_unichar_to_utf8(GetParam(), bytes));
    }

    std::string text;
};

INSTANTIATE_TEST_SUITE_P(CodePoints, GroupFileNoncharacter,
                         ::testing::Values(0xFFFE, 0xFFFF, 0xFDD0, 0x10FFFF));

TEST_P(GroupFileNoncharacter, IsNotSavedInAnyText)
{
    StoreFolder::write("M4.json", DOOR);
    g_autoptr(SonobrikGroup) group = new_record(4, "/door.wav", "Door", "audio", json_object());
    for (char **field : {&group->location, &group->name, &group->type}) {
        char *good_text = *field;
        *field = g_strdup(text.c_str());
        EXPECT_FALSE(sonobrik_group_save(group));
        expect_not_packed("It contains text that D-Bus cannot transmit");
        g_free(*field);
        *field = good_text;
    }
    EXPECT_EQ(StoreFolder::read("M4.json"), DOOR);
    EXPECT_EQ(group->metadata->refcount, 1U);
}

TEST_P(GroupFileNoncharacter, IsLoadedAndCanBeReplacedByARename)
{
    g_autoptr(SonobrikGroup) group = load(record_file("/door.wav", text, "audio"));
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(group->name, text);
    EXPECT_TRUE(sonobrik_group_set_name(group, "Door"));
    EXPECT_TRUE(sonobrik_group_save(group));
    EXPECT_EQ(StoreFolder::read("M4.json"), record_file("/door.wav", "Door", "audio"));
}

/* The limits of a record. */

struct Limit {
    const char *name;
    char *SonobrikGroup::*field;
    size_t bytes;
    const char *fault;
};

class GroupFileLimit : public GroupFile, public ::testing::WithParamInterface<Limit>
{
  protected:
    /* Sets the field to `bytes` bytes in characters of two. */
    static void fill(SonobrikGroup *group, size_t bytes)
    {
        std::string text(bytes % 2, 'x');
        while (text.size() < bytes) {
            text += "\xC3\xBC";
        }
        g_free(group->*GetParam().field);
        group->*GetParam().field = g_strdup(text.c_str());
    }
};

INSTANTIATE_TEST_SUITE_P(Texts, GroupFileLimit,
                         ::testing::Values(Limit{"Location", &SonobrikGroup::location, 4095,
                                                 "has a location of more than 4095 bytes"},
                                           Limit{"Name", &SonobrikGroup::name, 255,
                                                 "has a name of more than 255 bytes"},
                                           Limit{"Type", &SonobrikGroup::type, 255,
                                                 "has a type of more than 255 bytes"}),
                         [](const auto &info) { return info.param.name; });

TEST_P(GroupFileLimit, LongestTextIsSaved)
{
    g_autoptr(SonobrikGroup) group = new_record(4, "/door.wav", "Door", "audio");
    fill(group, GetParam().bytes);
    EXPECT_EQ(sonobrik_group_get_fault(group), nullptr);
    EXPECT_TRUE(sonobrik_group_save(group));
    expect_no_log();
}

TEST_P(GroupFileLimit, LongerTextIsNotSaved)
{
    StoreFolder::write("M4.json", DOOR);
    g_autoptr(SonobrikGroup) group = new_record(4, "/door.wav", "Door", "audio");
    fill(group, GetParam().bytes + 1);
    EXPECT_STREQ(sonobrik_group_get_fault(group), GetParam().fault);
    EXPECT_FALSE(sonobrik_group_save(group));
    expect_not_packed(std::string("It ") + GetParam().fault);
    EXPECT_EQ(StoreFolder::read("M4.json"), DOOR);
}

TEST_F(GroupFile, MetadataIsLimitedByItsCompactText)
{
    const std::string text(16384 - strlen(R"({"a":""})"), 'x');
    g_autoptr(SonobrikGroup) group =
        new_record(4, "/door.wav", "Door", "audio", json_pack("{s:s}", "a", text.c_str()));
    EXPECT_EQ(sonobrik_group_get_fault(group), nullptr);
    EXPECT_TRUE(sonobrik_group_save(group));
    expect_no_log();
    json_object_set_new(group->metadata, "a", json_string((text + "x").c_str()));
    EXPECT_FALSE(sonobrik_group_save(group));
    expect_not_packed("It has metadata of more than 16384 bytes");
    /* A control character has six bytes. */
    json_object_set_new(group->metadata, "a", json_string(std::string(16384 / 6, 1).c_str()));
    EXPECT_STREQ(sonobrik_group_get_fault(group), "has metadata of more than 16384 bytes");
    json_decref(group->metadata);
    group->metadata = json_string(std::string(16384, 'x').c_str());
    EXPECT_STREQ(sonobrik_group_get_fault(group), "has metadata of more than 16384 bytes");
}

TEST_F(GroupFile, NullRecordHasAFault)
{
    EXPECT_NE(sonobrik_group_get_fault(nullptr), nullptr);
}

/* Loading. */

TEST_F(GroupFile, RecordIsLoadedWhole)
{
    g_autoptr(SonobrikGroup) group = load(
        R"({"type": "audio", "metadata": {"size": 5}, "name": "T\u00fcr", "location": "/d.wav"})");
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(group->index, 4);
    EXPECT_STREQ(group->location, "/d.wav");
    EXPECT_STREQ(group->name, "T\xC3\xBCr");
    EXPECT_STREQ(group->type, "audio");
    EXPECT_EQ(compact(group->metadata), R"({"size":5})");
    EXPECT_EQ(group->metadata->refcount, 1U) << "the document is gone";
    expect_no_log();
}

TEST_F(GroupFile, SavedRecordCanBeLoaded)
{
    g_autoptr(SonobrikGroup) group =
        new_record(4, "/door.wav", "Door", "audio", json_pack("{s:[]}", "mediaTypes"));
    EXPECT_TRUE(sonobrik_group_save(group));
    g_autoptr(SonobrikGroup) loaded = sonobrik_group_from_file("clip_data/M4.json");
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(loaded->index, 4);
    EXPECT_STREQ(loaded->location, "/door.wav");
    EXPECT_STREQ(loaded->name, "Door");
    EXPECT_STREQ(loaded->type, "audio");
    EXPECT_EQ(compact(loaded->metadata), R"({"mediaTypes":[]})");
}

TEST_F(GroupFile, FileWithoutMetadataIsLoaded)
{
    g_autoptr(SonobrikGroup) group = load(DOOR);
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(group->metadata, nullptr);
    expect_no_log();
}

TEST_F(GroupFile, MetadataOfAnyTypeIsLoaded)
{
    for (const std::string metadata : {"null", "[1]", "\"text\"", "5", "true"}) {
        g_autoptr(SonobrikGroup) group = load(record_file("/a.wav", "A", "audio", metadata));
        ASSERT_NE(group, nullptr) << metadata;
        EXPECT_EQ(compact(group->metadata), metadata);
    }
    expect_no_log();
}

TEST_F(GroupFile, ExtraKeysAreIgnoredAndDroppedBySaving)
{
    g_autoptr(SonobrikGroup) group =
        load(R"({"index": 9, "location": "/a", "name": "A", "type": "t", "volume": [{}]})");
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(group->index, 4);
    EXPECT_TRUE(sonobrik_group_save(group));
    EXPECT_EQ(StoreFolder::read("M4.json"), record_file("/a", "A", "t"));
    expect_no_log();
}

TEST_F(GroupFile, FileWithoutATextIsNotLoaded)
{
    EXPECT_EQ(load(R"({"name": "A", "type": "t", "metadata": {"a": [1]}})"), nullptr);
    expect_no_record("Object item not found: location");
    EXPECT_EQ(load(R"({"location": "/a", "type": "t", "metadata": {"a": [1]}})"), nullptr);
    expect_no_record("Object item not found: name");
    EXPECT_EQ(load(R"({"location": "/a", "name": "A", "metadata": {"a": [1]}})"), nullptr);
    expect_no_record("Object item not found: type");
}

TEST_F(GroupFile, TextOfAnotherTypeIsNotLoaded)
{
    EXPECT_EQ(load(R"({"location": 1, "name": "A", "type": "t"})"), nullptr);
    expect_no_record("Expected string, got integer");
    EXPECT_EQ(load(R"({"location": "/a", "name": null, "type": "t"})"), nullptr);
    expect_no_record("Expected string, got null");
    EXPECT_EQ(load(R"({"location": "/a", "name": "A", "type": ["t"], "metadata": {}})"), nullptr);
    expect_no_record("Expected string, got array");
}

TEST_F(GroupFile, DocumentThatIsNotAnObjectIsNotLoaded)
{
    EXPECT_EQ(load(R"(["/a", "A", "t"])"), nullptr);
    expect_no_record("Expected object, got array");
}

TEST_F(GroupFile, TruncatedFileIsNotLoaded)
{
    EXPECT_EQ(load("{\n  \"location\": \"/a\",\n  \"na"), nullptr);
    expect_no_json("M4.json", 3, "premature end of input near '\"na'");
    EXPECT_EQ(load(""), nullptr);
    expect_no_json("M4.json", 1, "'[' or '{' expected near end of file");
}

TEST_F(GroupFile, FileThatIsNotUtf8IsNotLoaded)
{
    EXPECT_EQ(load("{\"name\": \"\xFF\"}"), nullptr);
    expect_no_json("M4.json", 1, "unable to decode byte 0xff near '\"'");
}

TEST_F(GroupFile, MissingFileIsNotLoaded)
{
    EXPECT_EQ(sonobrik_group_from_file("clip_data/M5.json"), nullptr);
    expect_no_json("M5.json", -1, "unable to open clip_data/M5.json: No such file or directory");
}

TEST_F(GroupFile, UnreadableFileIsNotLoaded)
{
    StoreFolder::write("M4.json", DOOR);
    std::filesystem::permissions("clip_data/M4.json", std::filesystem::perms::none);
    const UnprivilegedFileAccess user;
    EXPECT_EQ(sonobrik_group_from_file("clip_data/M4.json"), nullptr);
    expect_no_json("M4.json", -1, "unable to open clip_data/M4.json: Permission denied");
}

TEST_F(GroupFile, FolderIsNotLoaded)
{
    std::filesystem::create_directory("clip_data/M5.json");
    EXPECT_EQ(sonobrik_group_from_file("clip_data/M5.json"), nullptr);
    expect_no_json("M5.json", 1, "'[' or '{' expected near end of file");
}

TEST_F(GroupFile, FifoIsNotWaitedFor)
{
    ASSERT_EQ(mkfifo("clip_data/M6.json", 0600), 0);
    EXPECT_EQ(sonobrik_group_from_file("clip_data/M6.json"), nullptr);
    expect_no_json("M6.json", -1, "not a regular file");
}

TEST_F(GroupFile, LinkToADeviceIsNotRead)
{
    std::filesystem::create_symlink("/dev/zero", "clip_data/M6.json");
    EXPECT_EQ(sonobrik_group_from_file("clip_data/M6.json"), nullptr);
    expect_no_json("M6.json", -1, "not a regular file");
}

TEST_F(GroupFile, LinkToAFileIsLoaded)
{
    StoreFolder::write("door", DOOR);
    std::filesystem::create_symlink("door", "clip_data/M6.json");
    g_autoptr(SonobrikGroup) group = sonobrik_group_from_file("clip_data/M6.json");
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(group->index, 6);
}

TEST_F(GroupFile, NullPathIsNotLoaded)
{
    EXPECT_EQ(sonobrik_group_from_file(nullptr), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "sonobrik_group_from_file was called with invalid arguments");
    expect_no_log();
}

TEST_F(GroupFile, FileAboveTheBoundIsLoaded)
{
    StoreFolder::write("M99.json", DOOR);
    g_autoptr(SonobrikGroup) group = sonobrik_group_from_file("clip_data/M99.json");
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(group->index, 99);
    expect_no_log();
}

TEST_F(GroupFile, FileWithoutANumberIsNotLoaded)
{
    StoreFolder::write("Mx.json", record_file("/a.wav", "A", "audio", "{\"a\": []}"));
    EXPECT_EQ(sonobrik_group_from_file("clip_data/Mx.json"), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "Could not obtain parameter index from 'x'");
    expect_log(LOG_LEVEL_ERROR, "No index value found in 'clip_data/Mx.json'");
    StoreFolder::write("M.json", DOOR);
    EXPECT_EQ(sonobrik_group_from_file("clip_data/M.json"), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "Could not obtain parameter index from ''");
    expect_log(LOG_LEVEL_ERROR, "No index value found in 'clip_data/M.json'");
    expect_no_log();
}

TEST_F(GroupFile, FileWithANegativeNumberIsNotLoaded)
{
    StoreFolder::write("M-5.json", DOOR);
    EXPECT_EQ(sonobrik_group_from_file("clip_data/M-5.json"), nullptr);
    expect_log(LOG_LEVEL_ERROR, "No index value found in 'clip_data/M-5.json'");
    expect_no_log();
}
