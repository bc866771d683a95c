#include "sonobrik_group_metadata.h"

#include <map>
#include <string>

#include "autoptr.h"
#include "failing_calls.h"
#include "fake_discovery.h"
#include "log_test.h"
#include "store_folder.h"

namespace
{

class GroupMetadata : public LogTest
{
  protected:
    GroupMetadata()
    {
        discovery = {};
        discovery.found["/etc/audioclips/door.wav"] = {};
    }

    ~GroupMetadata() override
    {
        EXPECT_EQ(discovery.handles, 0) << "a handle was kept";
        sonobrik_group_free(group);
        json_decref(metadata);
    }

    /* Returns a record with this metadata, JSON or null. */
    SonobrikGroup *record(const char *text)
    {
        group = new_record(4, "/etc/audioclips/door.wav", "Door", "audio", parse(text));
        return group;
    }

    static json_t *parse(const char *text)
    {
        return text ? json_loads(text, JSON_DECODE_ANY, nullptr) : nullptr;
    }

    /* Returns the object that describes the record to clients. */
    static std::string reply(SonobrikGroup *group)
    {
        g_autoptr(json_t) object = sonobrik_group_metadata(group);
        return compact(object);
    }

    void expect_invalid(const std::string &error)
    {
        expect_log(LOG_LEVEL_ERROR, "The metadata object is not valid, error '" + error + "'");
    }

    void expect_not_created(const std::string &location = "/etc/audioclips/door.wav")
    {
        expect_log(G_LOG_LEVEL_WARNING,
                   "Failed to create metadata for clip at location: " + location);
        expect_no_log();
    }

    StoreFolder store;
    FailingCalls calls;
    SonobrikGroup *group = nullptr;
    json_t *metadata = nullptr;
};

} // namespace

/* Validity. */

TEST_F(GroupMetadata, CompleteMetadataIsValid)
{
    EXPECT_TRUE(sonobrik_group_metadata_valid(record(VALID)));
    EXPECT_EQ(group->metadata->refcount, 1U);
    EXPECT_EQ(json_object_get(group->metadata, "mediaTypes")->refcount, 1U);
    expect_no_log();
}

TEST_F(GroupMetadata, MediaTypesMayBeOfAnyType)
{
    for (const char *text : {R"({"mediaTypes":null,"size":5,"duration":50})",
                             R"({"mediaTypes":"x","size":5,"duration":50})",
                             R"({"mediaTypes":{},"size":5,"duration":50})"}) {
        EXPECT_TRUE(sonobrik_group_metadata_valid(record(text))) << text;
        sonobrik_group_free(g_steal_pointer(&group));
    }
    expect_no_log();
}

TEST_F(GroupMetadata, ExtraMembersAndNegativeNumbersAreValid)
{
    EXPECT_TRUE(sonobrik_group_metadata_valid(
        record(R"({"a":1,"duration":-2,"mediaTypes":[],"size":-1})")));
    expect_no_log();
}

TEST_F(GroupMetadata, NumbersOf64BitsAreValid)
{
    EXPECT_TRUE(sonobrik_group_metadata_valid(
        record(R"({"mediaTypes":[],"size":9223372036854775807,"duration":4294967296})")));
}

TEST_F(GroupMetadata, MetadataWithoutMembersIsInvalidWithoutALogLine)
{
    for (const char *text :
         {static_cast<const char *>(nullptr), "{}", "[]", "[1]", "null", "\"text\"", "5"}) {
        EXPECT_FALSE(sonobrik_group_metadata_valid(record(text))) << (text ? text : "none");
        sonobrik_group_free(g_steal_pointer(&group));
    }
    expect_no_log();
}

TEST_F(GroupMetadata, MetadataOfAnInvalidRecordIsInvalidWithoutALogLine)
{
    EXPECT_FALSE(sonobrik_group_metadata_valid(nullptr));
    record(R"({"size":"5"})");
    g_clear_pointer(&group->type, g_free);
    EXPECT_FALSE(sonobrik_group_metadata_valid(group));
    expect_no_log();
}

TEST_F(GroupMetadata, MissingMemberIsNotValid)
{
    EXPECT_FALSE(sonobrik_group_metadata_valid(record(R"({"size":5,"duration":50})")));
    expect_invalid("Object item not found: mediaTypes");
    sonobrik_group_free(g_steal_pointer(&group));
    EXPECT_FALSE(sonobrik_group_metadata_valid(record(R"({"mediaTypes":[],"duration":50})")));
    expect_invalid("Object item not found: size");
    sonobrik_group_free(g_steal_pointer(&group));
    EXPECT_FALSE(sonobrik_group_metadata_valid(record(R"({"mediaTypes":[],"size":5})")));
    expect_invalid("Object item not found: duration");
    expect_no_log();
}

TEST_F(GroupMetadata, NumberOfAnotherTypeIsNotValid)
{
    EXPECT_FALSE(
        sonobrik_group_metadata_valid(record(R"({"mediaTypes":[],"size":"5","duration":50})")));
    expect_invalid("Expected integer, got string");
    sonobrik_group_free(g_steal_pointer(&group));
    EXPECT_FALSE(
        sonobrik_group_metadata_valid(record(R"({"mediaTypes":[],"size":5,"duration":50.0})")));
    expect_invalid("Expected integer, got real");
    expect_no_log();
}

/* Storing. */

TEST_F(GroupMetadata, MetadataIsStoredAndItsReferenceTaken)
{
    metadata = parse(VALID);
    record(R"({"old":[]})");
    EXPECT_TRUE(sonobrik_group_set_media_metadata(group, json_incref(metadata)));
    EXPECT_EQ(group->metadata, metadata);
    EXPECT_EQ(metadata->refcount, 2U);
    EXPECT_EQ(StoreFolder::read("M4.json"),
              record_file("/etc/audioclips/door.wav", "Door", "audio", VALID_FILE_METADATA));
    expect_no_log();
}

TEST_F(GroupMetadata, OldMetadataIsReleased)
{
    record(nullptr);
    metadata = json_object();
    group->metadata = json_incref(metadata);
    EXPECT_TRUE(sonobrik_group_set_media_metadata(group, parse(VALID)));
    EXPECT_EQ(metadata->refcount, 1U);
}

TEST_F(GroupMetadata, RecordsOwnMetadataIsStored)
{
    record(VALID);
    EXPECT_TRUE(sonobrik_group_set_media_metadata(group, json_incref(group->metadata)));
    EXPECT_EQ(group->metadata->refcount, 1U);
    EXPECT_EQ(compact(group->metadata), VALID);
}

TEST_F(GroupMetadata, NullIsNotStored)
{
    record(VALID);
    EXPECT_FALSE(sonobrik_group_set_media_metadata(group, nullptr));
    EXPECT_EQ(compact(group->metadata), VALID);
    EXPECT_TRUE(fake_platform.written.empty());
    expect_no_log();
}

TEST_F(GroupMetadata, MetadataForANullRecordIsReleased)
{
    metadata = parse(VALID);
    EXPECT_FALSE(sonobrik_group_set_media_metadata(nullptr, json_incref(metadata)));
    EXPECT_EQ(metadata->refcount, 1U);
    expect_no_log();
}

TEST_F(GroupMetadata, InvalidMetadataStaysInMemoryOnly)
{
    EXPECT_FALSE(sonobrik_group_set_media_metadata(record(VALID), parse(R"({"size":5})")));
    expect_invalid("Object item not found: mediaTypes");
    expect_log(G_LOG_LEVEL_WARNING, "Received invalid metadata");
    expect_no_log();
    EXPECT_EQ(compact(group->metadata), R"({"size":5})");
    EXPECT_TRUE(fake_platform.written.empty());
}

TEST_F(GroupMetadata, EmptyMetadataIsNotStored)
{
    EXPECT_FALSE(sonobrik_group_set_media_metadata(record(VALID), json_object()));
    expect_log(G_LOG_LEVEL_WARNING, "Received invalid metadata");
    expect_no_log();
    EXPECT_TRUE(fake_platform.written.empty());
}

TEST_F(GroupMetadata, FailureToSaveIsReported)
{
    fake_platform.write_fails = true;
    EXPECT_FALSE(sonobrik_group_set_media_metadata(record("{}"), parse(VALID)));
    expect_log(G_LOG_LEVEL_WARNING,
               "json_utils_save_to_file failed to save json data to file 'clip_data/M4.json'");
    expect_log(LOG_LEVEL_ERROR, "sonobrik_group_save failed to save json object");
    expect_log(LOG_LEVEL_ERROR, "Failed to save valid media metadata");
    expect_no_log();
    EXPECT_EQ(compact(group->metadata), VALID);
}

/* One record. */

TEST_F(GroupMetadata, StoredMetadataIsReturnedWithoutInspectingTheFile)
{
    EXPECT_EQ(reply(record(R"({"mediaTypes":["audio/x-wav"],"size":-1,"duration":7})")),
              R"({"4":{"name":"Door","fileName":"door.wav","mediaTypes":["audio/x-wav"],)"
              R"("size":-1,"duration":7}})");
    EXPECT_TRUE(discovery.inspected.empty());
    EXPECT_TRUE(fake_platform.written.empty());
    expect_no_log();
}

TEST_F(GroupMetadata, ReturningMetadataKeepsTheRecordsReference)
{
    record(VALID);
    reply(group);
    EXPECT_EQ(group->metadata->refcount, 1U);
    EXPECT_EQ(json_object_get(group->metadata, "mediaTypes")->refcount, 1U);
}

TEST_F(GroupMetadata, ReplyOutlivesTheRecord)
{
    g_autoptr(json_t) object = sonobrik_group_metadata(record(VALID));
    sonobrik_group_free(g_steal_pointer(&group));
    EXPECT_EQ(compact(object),
              R"({"4":{"name":"Door","fileName":"door.wav","mediaTypes":["audio/x-wav"],)"
              R"("size":5,"duration":50}})");
    EXPECT_EQ(object->refcount, 1U);
}

TEST_F(GroupMetadata, NullMediaTypesAreReturnedUnchanged)
{
    EXPECT_EQ(reply(record(R"({"mediaTypes":null,"size":5,"duration":50})")),
              R"({"4":{"name":"Door","fileName":"door.wav","mediaTypes":null,"size":5,)"
              R"("duration":50}})");
    EXPECT_TRUE(discovery.inspected.empty());
    expect_no_log();
}

TEST_F(GroupMetadata, ExtraMembersAreNotReturned)
{
    EXPECT_EQ(reply(record(R"({"a":1,"duration":50,"size":5,"mediaTypes":[]})")),
              R"({"4":{"name":"Door","fileName":"door.wav","mediaTypes":[],"size":5,)"
              R"("duration":50}})");
}

TEST_F(GroupMetadata, FileNameIsTheLastComponentOfTheLocation)
{
    record(VALID);
    for (const auto &[location, name] :
         std::map<std::string, std::string>{{"/a/b c/d.wav", "d.wav"},
                                            {"d.wav", "d.wav"},
                                            {"/etc/audioclips/\xC3\xBC", "\xC3\xBC"}}) {
        g_free(group->location);
        group->location = g_strdup(location.c_str());
        g_autoptr(json_t) object = sonobrik_group_metadata(group);
        EXPECT_EQ(json_string_value(json_object_get(json_object_get(object, "4"), "fileName")),
                  name);
    }
}

TEST_F(GroupMetadata, MissingMetadataIsComputedAndSaved)
{
    for (const char *text : {static_cast<const char *>(nullptr), "{}", "[5]", "null"}) {
        fake_platform.written.clear();
        EXPECT_EQ(reply(record(text)),
                  R"({"4":{"name":"Door","fileName":"door.wav","mediaTypes":["audio/x-wav"],)"
                  R"("size":5,"duration":50}})");
        EXPECT_EQ(StoreFolder::read("M4.json"),
                  record_file("/etc/audioclips/door.wav", "Door", "audio", VALID_FILE_METADATA));
        EXPECT_EQ(fake_platform.written.size(), 1U);
        EXPECT_EQ(discovery.inspected.back(), "/etc/audioclips/door.wav");
        EXPECT_EQ(group->metadata->refcount, 1U);
        sonobrik_group_free(g_steal_pointer(&group));
    }
    EXPECT_EQ(discovery.inspected.size(), 4U);
    expect_no_log();
}

TEST_F(GroupMetadata, BrokenMetadataIsRecomputed)
{
    EXPECT_EQ(reply(record(R"({"mediaTypes":[],"size":"5","duration":50})")),
              R"({"4":{"name":"Door","fileName":"door.wav","mediaTypes":["audio/x-wav"],)"
              R"("size":5,"duration":50}})");
    expect_invalid("Expected integer, got string");
    expect_no_log();
    EXPECT_EQ(StoreFolder::read("M4.json"),
              record_file("/etc/audioclips/door.wav", "Door", "audio", VALID_FILE_METADATA));
}

TEST_F(GroupMetadata, ComputedMetadataIsNotComputedAgain)
{
    record("{}");
    reply(group);
    reply(group);
    EXPECT_EQ(discovery.inspected.size(), 1U);
}

TEST_F(GroupMetadata, SizeAndDurationOfZeroAreStored)
{
    discovery.found["/etc/audioclips/door.wav"] = {"[]", 0, 0};
    EXPECT_EQ(reply(record("{}")),
              R"({"4":{"name":"Door","fileName":"door.wav","mediaTypes":[],"size":0,)"
              R"("duration":0}})");
    expect_no_log();
}

TEST_F(GroupMetadata, NumbersOf64BitsAreStored)
{
    discovery.found["/etc/audioclips/door.wav"] = {"[]", 4294967296, G_MAXINT64};
    EXPECT_EQ(reply(record("{}")),
              R"({"4":{"name":"Door","fileName":"door.wav","mediaTypes":[],"size":4294967296,)"
              R"("duration":9223372036854775807}})");
}

TEST_F(GroupMetadata, NullRecordHasNoMetadata)
{
    EXPECT_EQ(sonobrik_group_metadata(nullptr), nullptr);
    expect_no_log();
}

TEST_F(GroupMetadata, RecordWithoutALocationHasNoMetadata)
{
    record(VALID);
    g_clear_pointer(&group->location, g_free);
    EXPECT_EQ(sonobrik_group_metadata(group), nullptr);
    expect_not_created("(null)");
    expect_no_log();
    EXPECT_TRUE(discovery.inspected.empty());
}

TEST_F(GroupMetadata, FileThatCannotBeDescribedHasNoMetadata)
{
    discovery.found.clear();
    EXPECT_EQ(sonobrik_group_metadata(record("{}")), nullptr);
    expect_log(G_LOG_LEVEL_WARNING,
               "Could not get metadata for location: /etc/audioclips/door.wav");
    expect_not_created();
    EXPECT_TRUE(fake_platform.written.empty());
}

TEST_F(GroupMetadata, IncompleteDescriptionIsNotStored)
{
    for (const Description &description :
         {Description{nullptr, 5, 50}, Description{"[]", -1, 50}, Description{"[]", 5, -1}}) {
        discovery.found["/etc/audioclips/door.wav"] = description;
        EXPECT_EQ(sonobrik_group_metadata(record("{}")), nullptr);
        expect_log(LOG_LEVEL_ERROR, "Invalid metadata, can not pack metadata");
        expect_not_created();
        EXPECT_EQ(compact(group->metadata), "{}");
        sonobrik_group_free(g_steal_pointer(&group));
    }
    EXPECT_TRUE(fake_platform.written.empty());
}

TEST_F(GroupMetadata, DescriptionThatCannotBePackedIsNotStored)
{
    calls.fail_one("json_pack_ex", 1);
    EXPECT_EQ(sonobrik_group_metadata(record("{}")), nullptr);
    expect_log(LOG_LEVEL_ERROR, "Failed to create metadata object, error 'Out of memory'");
    expect_not_created();
}

TEST_F(GroupMetadata, ComputedMetadataThatCannotBeSavedIsNotReturned)
{
    fake_platform.write_fails = true;
    EXPECT_EQ(sonobrik_group_metadata(record("{}")), nullptr);
    expect_log(G_LOG_LEVEL_WARNING,
               "json_utils_save_to_file failed to save json data to file 'clip_data/M4.json'");
    expect_log(LOG_LEVEL_ERROR, "sonobrik_group_save failed to save json object");
    expect_log(LOG_LEVEL_ERROR, "Failed to save valid media metadata");
    expect_not_created();
}

TEST_F(GroupMetadata, ReplyThatCannotBePackedIsReported)
{
    calls.fail_one("json_pack_ex", 1);
    EXPECT_EQ(sonobrik_group_metadata(record(VALID)), nullptr);
    expect_log(LOG_LEVEL_ERROR, "Failed to create parameter object, error 'Out of memory'");
    expect_no_log();
    EXPECT_EQ(json_object_get(group->metadata, "mediaTypes")->refcount, 1U);
}

/*
 * A valid record has the three members, so no record makes these lines appear. The check of the
 * record reads the three first; then they are read in the order media types, size, duration.
 */

TEST_F(GroupMetadata, ReplyNeedsTheMediaTypes)
{
    calls.fail_one("json_object_get", 4);
    EXPECT_EQ(sonobrik_group_metadata(record(VALID)), nullptr);
    expect_log(G_LOG_LEVEL_WARNING,
               "sonobrik_group_metadata failed to obtain the media types of the media file");
    expect_log(LOG_LEVEL_ERROR, "Failed to create parameter object, error 'NULL object'");
    expect_no_log();
}

TEST_F(GroupMetadata, SizeThatCannotBeReadIsReturnedAsMinusOne)
{
    calls.fail_one("json_object_get", 5);
    EXPECT_EQ(reply(record(VALID)),
              R"({"4":{"name":"Door","fileName":"door.wav","mediaTypes":["audio/x-wav"],)"
              R"("size":-1,"duration":50}})");
    expect_log(G_LOG_LEVEL_WARNING,
               "sonobrik_group_metadata failed to obtain the size of the media file");
    expect_no_log();
}

TEST_F(GroupMetadata, DurationThatCannotBeReadIsReturnedAsMinusOne)
{
    calls.fail_one("json_object_get", 6);
    EXPECT_EQ(reply(record(VALID)),
              R"({"4":{"name":"Door","fileName":"door.wav","mediaTypes":["audio/x-wav"],)"
              R"("size":5,"duration":-1}})");
    expect_log(G_LOG_LEVEL_WARNING,
               "sonobrik_group_metadata failed to obtain the duration of the media file");
    expect_no_log();
}
