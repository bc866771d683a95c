#include "sonobrik_group.h"

#include <cstdlib>
#include <string>
#include <vector>

#include "log_test.h"

namespace
{

/* The record at each save: location, name, type, metadata. */
std::vector<std::string> saved;
bool save_fails;

constexpr const char *NULL_NAME =
    "sonobrik_group_get_property_enum was called with invalid arguments";
constexpr const char *NOT_SET =
    "sonobrik_group_set_enum_property failed to set/update with the new property value";
constexpr const char *NOT_SAVED = "sonobrik_group_set_enum_property Failed to update parameter";

class GroupProperties : public LogTest
{
  protected:
    GroupProperties()
    {
        saved.clear();
        save_fails = false;
        group = g_new0(SonobrikGroup, 1);
        group->index = 4;
        group->location = g_strdup("/etc/audioclips/door.wav");
        group->name = g_strdup("Door");
        group->type = g_strdup("audio");
        group->metadata = json_pack("{s:i}", "size", 5);
    }

    ~GroupProperties() override
    {
        sonobrik_group_free(group);
    }

    SonobrikGroup *group;
};

} // namespace

bool sonobrik_group_save(SonobrikGroup *group)
{
    char *metadata = json_dumps(group->metadata, JSON_COMPACT);
    saved.push_back(std::string(group->location) + " " + group->name + " " + group->type + " " +
                    metadata);
    free(metadata);
    return !save_fails;
}

TEST_F(GroupProperties, NamesAreFound)
{
    auto value = SONOBRIK_GROUP_PROPERTY_COUNT;
    EXPECT_TRUE(sonobrik_group_get_property_enum("Location", &value));
    EXPECT_EQ(value, 0);
    EXPECT_TRUE(sonobrik_group_get_property_enum("Name", &value));
    EXPECT_EQ(value, 1);
    EXPECT_TRUE(sonobrik_group_get_property_enum("Type", &value));
    EXPECT_EQ(value, 2);
    expect_no_log();
}

TEST_F(GroupProperties, NamesMatchExactly)
{
    for (const std::string name : {"name", "NAME", "Nam", "Names", "", "Metadata", " Name"}) {
        auto value = SONOBRIK_GROUP_TYPE;
        EXPECT_FALSE(sonobrik_group_get_property_enum(name.c_str(), &value));
        EXPECT_EQ(value, SONOBRIK_GROUP_TYPE);
        expect_log(G_LOG_LEVEL_WARNING, "Invalid property '" + name + "'");
    }
    expect_no_log();
}

TEST_F(GroupProperties, NullOutputFails)
{
    EXPECT_FALSE(sonobrik_group_get_property_enum("Name", nullptr));
    clear_log();
}

TEST_F(GroupProperties, ValuesHaveNames)
{
    EXPECT_STREQ(sonobrik_group_get_property_name(0), "Location");
    EXPECT_STREQ(sonobrik_group_get_property_name(1), "Name");
    EXPECT_STREQ(sonobrik_group_get_property_name(2), "Type");
    EXPECT_EQ(sonobrik_group_get_property_name(3), nullptr);
    EXPECT_EQ(sonobrik_group_get_property_name(G_MAXUINT), nullptr);
    expect_no_log();
}

TEST_F(GroupProperties, PropertyIsReadByName)
{
    EXPECT_EQ(sonobrik_group_get_property(group, "Location"), group->location);
    EXPECT_EQ(sonobrik_group_get_property(group, "Name"), group->name);
    EXPECT_EQ(sonobrik_group_get_property(group, "Type"), group->type);
    expect_no_log();
}

TEST_F(GroupProperties, NullNameIsNotRead)
{
    EXPECT_EQ(sonobrik_group_get_property(group, nullptr), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, NULL_NAME);
    expect_no_log();
}

TEST_F(GroupProperties, UnknownNameIsLoggedForANullRecordToo)
{
    EXPECT_EQ(sonobrik_group_get_property(nullptr, "name"), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "Invalid property 'name'");
    expect_no_log();
}

TEST_F(GroupProperties, NullRecordHasNoProperty)
{
    EXPECT_EQ(sonobrik_group_get_property(nullptr, "Name"), nullptr);
    EXPECT_EQ(sonobrik_group_get_enum_property(nullptr, 1), nullptr);
    expect_no_log();
}

TEST_F(GroupProperties, PropertyIsReadByValue)
{
    EXPECT_EQ(sonobrik_group_get_enum_property(group, 0), group->location);
    EXPECT_EQ(sonobrik_group_get_enum_property(group, 1), group->name);
    EXPECT_EQ(sonobrik_group_get_enum_property(group, 2), group->type);
    expect_no_log();
}

TEST_F(GroupProperties, FourthPropertyDoesNotExist)
{
    EXPECT_EQ(sonobrik_group_get_enum_property(group, 3), nullptr);
    EXPECT_EQ(sonobrik_group_get_enum_property(group, G_MAXUINT), nullptr);
    expect_no_log();
}

TEST_F(GroupProperties, PropertyIsSetByNameAndSaved)
{
    EXPECT_TRUE(sonobrik_group_set_property(group, "Name", "Bell"));
    EXPECT_TRUE(sonobrik_group_set_property(group, "Type", "speech"));
    const std::vector<std::string> expected = {
        R"(/etc/audioclips/door.wav Bell audio {"size":5})",
        R"(/etc/audioclips/door.wav Bell speech {"size":5})",
    };
    EXPECT_EQ(saved, expected);
    expect_no_log();
}

TEST_F(GroupProperties, LocationIsSavedWithoutTheOldMetadata)
{
    EXPECT_TRUE(sonobrik_group_set_property(group, "Location", "/b.wav"));
    EXPECT_EQ(saved, std::vector<std::string>{"/b.wav Door audio {}"});
    expect_no_log();
}

TEST_F(GroupProperties, PropertyIsSetByValueAndSaved)
{
    EXPECT_TRUE(sonobrik_group_set_enum_property(group, 1, ""));
    EXPECT_EQ(saved, std::vector<std::string>{R"(/etc/audioclips/door.wav  audio {"size":5})"});
    expect_no_log();
}

TEST_F(GroupProperties, NullNameIsNotSet)
{
    EXPECT_FALSE(sonobrik_group_set_property(group, nullptr, "Bell"));
    expect_log(G_LOG_LEVEL_WARNING, NULL_NAME);
    expect_no_log();
    EXPECT_TRUE(saved.empty());
}

TEST_F(GroupProperties, UnknownNameIsNotSet)
{
    EXPECT_FALSE(sonobrik_group_set_property(group, "name", "Bell"));
    expect_log(G_LOG_LEVEL_WARNING, "Invalid property 'name'");
    expect_no_log();
    EXPECT_STREQ(group->name, "Door");
    EXPECT_TRUE(saved.empty());
}

TEST_F(GroupProperties, NothingIsSetWithoutARecord)
{
    EXPECT_FALSE(sonobrik_group_set_property(nullptr, "Name", "Bell"));
    expect_log(G_LOG_LEVEL_WARNING, NOT_SET);
    EXPECT_FALSE(sonobrik_group_set_enum_property(nullptr, 1, "Bell"));
    expect_log(G_LOG_LEVEL_WARNING, NOT_SET);
    expect_no_log();
    EXPECT_TRUE(saved.empty());
}

TEST_F(GroupProperties, NothingIsSetWithoutAText)
{
    EXPECT_FALSE(sonobrik_group_set_property(group, "Location", nullptr));
    expect_log(G_LOG_LEVEL_WARNING, NOT_SET);
    expect_no_log();
    EXPECT_STREQ(group->location, "/etc/audioclips/door.wav");
    EXPECT_EQ(json_object_size(group->metadata), 1U);
    EXPECT_TRUE(saved.empty());
}

TEST_F(GroupProperties, FourthPropertyIsNotSet)
{
    EXPECT_FALSE(sonobrik_group_set_enum_property(group, 3, "Bell"));
    expect_log(G_LOG_LEVEL_WARNING, NOT_SET);
    EXPECT_FALSE(sonobrik_group_set_enum_property(group, G_MAXUINT, "Bell"));
    expect_log(G_LOG_LEVEL_WARNING, NOT_SET);
    expect_no_log();
    EXPECT_TRUE(saved.empty());
}

TEST_F(GroupProperties, RecordKeepsTheNewValueThatCouldNotBeSaved)
{
    save_fails = true;
    EXPECT_FALSE(sonobrik_group_set_property(group, "Name", "Bell"));
    expect_log(G_LOG_LEVEL_WARNING, NOT_SAVED);
    expect_no_log();
    EXPECT_STREQ(group->name, "Bell");
    EXPECT_EQ(saved.size(), 1U);
}
