#include "sonobrik_group.h"

#include <cstring>

#include "autoptr.h"
#include "log_test.h"

namespace
{

/* Has a record, and its own reference to the record's metadata. */
class GroupRecord : public LogTest
{
  protected:
    GroupRecord()
    {
        group = g_new0(SonobrikGroup, 1);
        group->index = 4;
        group->location = g_strdup("/etc/audioclips/door.wav");
        group->name = g_strdup("Door");
        group->type = g_strdup("audio");
        group->metadata = json_incref(metadata);
    }

    ~GroupRecord() override
    {
        sonobrik_group_free(group);
        json_decref(metadata);
    }

    /* None of these operations logs. */
    void TearDown() override
    {
        expect_no_log();
        LogTest::TearDown();
    }

    json_t *metadata = json_pack("{s:i}", "size", 5);
    SonobrikGroup *group;
};

} // namespace

TEST_F(GroupRecord, AccessorsReturnTheFields)
{
    EXPECT_EQ(sonobrik_group_get_index(group), 4);
    EXPECT_STREQ(sonobrik_group_get_location(group), "/etc/audioclips/door.wav");
    EXPECT_STREQ(sonobrik_group_get_name(group), "Door");
    EXPECT_STREQ(sonobrik_group_get_type(group), "audio");
    EXPECT_EQ(sonobrik_group_get_media_metadata(group), metadata);
    EXPECT_EQ(metadata->refcount, 2U) << "borrowed";
}

TEST_F(GroupRecord, NullRecordGivesTheFailureValue)
{
    EXPECT_EQ(sonobrik_group_get_index(nullptr), -1);
    EXPECT_EQ(sonobrik_group_get_location(nullptr), nullptr);
    EXPECT_EQ(sonobrik_group_get_name(nullptr), nullptr);
    EXPECT_EQ(sonobrik_group_get_type(nullptr), nullptr);
    EXPECT_EQ(sonobrik_group_get_media_metadata(nullptr), nullptr);
    EXPECT_FALSE(sonobrik_group_set_location(nullptr, "a"));
    EXPECT_FALSE(sonobrik_group_set_name(nullptr, "a"));
    EXPECT_FALSE(sonobrik_group_set_type(nullptr, "a"));
    EXPECT_FALSE(sonobrik_group_valid_parameter(nullptr));
    sonobrik_group_clear_media_metadata(nullptr);
    sonobrik_group_free(nullptr);
}

TEST_F(GroupRecord, NameIsReplacedByACopy)
{
    char text[] = "Bell";
    EXPECT_TRUE(sonobrik_group_set_name(group, text));
    text[0] = '?';
    EXPECT_STREQ(group->name, "Bell");
    EXPECT_EQ(group->metadata, metadata) << "a name does not describe the file";
}

TEST_F(GroupRecord, TypeIsReplacedByACopy)
{
    char text[] = "speech";
    EXPECT_TRUE(sonobrik_group_set_type(group, text));
    text[0] = '?';
    EXPECT_STREQ(group->type, "speech");
    EXPECT_EQ(group->metadata, metadata) << "a type does not describe the file";
}

TEST_F(GroupRecord, LocationIsReplacedByACopy)
{
    char text[] = "/etc/audioclips/bell.wav";
    EXPECT_TRUE(sonobrik_group_set_location(group, text));
    text[0] = '?';
    EXPECT_STREQ(group->location, "/etc/audioclips/bell.wav");
}

TEST_F(GroupRecord, NewLocationEmptiesTheMetadata)
{
    EXPECT_TRUE(sonobrik_group_set_location(group, "/etc/audioclips/bell.wav"));
    ASSERT_TRUE(json_is_object(group->metadata));
    EXPECT_EQ(json_object_size(group->metadata), 0U);
    EXPECT_EQ(group->metadata->refcount, 1U);
    EXPECT_EQ(metadata->refcount, 1U) << "the record let go of the old one";
    EXPECT_EQ(json_object_size(metadata), 1U) << "and did not change it";
}

TEST_F(GroupRecord, SettingTheSameLocationEmptiesTheMetadataToo)
{
    EXPECT_TRUE(sonobrik_group_set_location(group, "/etc/audioclips/door.wav"));
    EXPECT_EQ(json_object_size(group->metadata), 0U);
}

TEST_F(GroupRecord, TextMayBeTheRecordsOwn)
{
    EXPECT_TRUE(sonobrik_group_set_name(group, group->name));
    EXPECT_STREQ(group->name, "Door");
    EXPECT_TRUE(sonobrik_group_set_location(group, group->location + strlen("/etc")));
    EXPECT_STREQ(group->location, "/audioclips/door.wav");
}

TEST_F(GroupRecord, NullTextChangesNothing)
{
    EXPECT_FALSE(sonobrik_group_set_location(group, nullptr));
    EXPECT_FALSE(sonobrik_group_set_name(group, nullptr));
    EXPECT_FALSE(sonobrik_group_set_type(group, nullptr));
    EXPECT_STREQ(group->location, "/etc/audioclips/door.wav");
    EXPECT_STREQ(group->name, "Door");
    EXPECT_STREQ(group->type, "audio");
    EXPECT_EQ(group->metadata, metadata);
}

TEST_F(GroupRecord, EmptyTextIsAccepted)
{
    EXPECT_TRUE(sonobrik_group_set_location(group, ""));
    EXPECT_TRUE(sonobrik_group_set_name(group, ""));
    EXPECT_TRUE(sonobrik_group_set_type(group, ""));
    EXPECT_STREQ(group->location, "");
    EXPECT_STREQ(group->name, "");
    EXPECT_STREQ(group->type, "");
    EXPECT_TRUE(sonobrik_group_valid_parameter(group));
}

TEST_F(GroupRecord, MetadataIsDropped)
{
    sonobrik_group_clear_media_metadata(group);
    EXPECT_EQ(group->metadata, nullptr);
    EXPECT_EQ(metadata->refcount, 1U);
    sonobrik_group_clear_media_metadata(group);
    EXPECT_EQ(metadata->refcount, 1U) << "there was nothing left to drop";
}

TEST_F(GroupRecord, RecordIsValidWithItsThreeTexts)
{
    EXPECT_TRUE(sonobrik_group_valid_parameter(group));
    sonobrik_group_clear_media_metadata(group);
    EXPECT_TRUE(sonobrik_group_valid_parameter(group));
}

TEST_F(GroupRecord, RecordWithoutATextIsNotValid)
{
    for (char **field : {&group->location, &group->name, &group->type}) {
        char *text = g_steal_pointer(field);
        EXPECT_FALSE(sonobrik_group_valid_parameter(group));
        *field = text;
    }
    EXPECT_TRUE(sonobrik_group_valid_parameter(group));
}

TEST_F(GroupRecord, FreeingTheRecordReleasesTheMetadata)
{
    sonobrik_group_free(g_steal_pointer(&group));
    EXPECT_EQ(metadata->refcount, 1U);
}

TEST_F(GroupRecord, EmptyRecordCanBeFreed)
{
    sonobrik_group_free(g_new0(SonobrikGroup, 1));
}
