#include "discover_media_metadata.h"

#include <dlfcn.h>
#include <optional>
#include <string>

#include "autoptr.h"
#include "fake_discover_media.h"
#include "file_utils.h"
#include "log_test.h"

namespace
{

struct Fake {
    std::optional<std::string> media_info; /* none: the file cannot be described */
    int discoveries = 0;
    bool was_empty_object = false;
    std::string path;
    json_t *kept = nullptr; /* the object that was filled */

    gint32 size_kb = 0;
    std::string sized_path;

    bool json_object_fails = false;
};

Fake fake;

bool describe(const char *path, json_t *media_info)
{
    fake.discoveries++;
    fake.path = path ? path : "(null)";
    fake.was_empty_object = json_is_object(media_info) && json_object_size(media_info) == 0;
    json_decref(fake.kept);
    fake.kept = json_incref(media_info);
    if (!fake.media_info) {
        return false;
    }
    g_autoptr(json_t) given = json_loads(fake.media_info->c_str(), 0, nullptr);
    EXPECT_NE(given, nullptr) << *fake.media_info;
    json_object_update(media_info, given);
    return true;
}

} // namespace

gint32 file_utils_get_file_size_kb(const char *path)
{
    fake.sized_path = path;
    return fake.size_kb;
}

/* Replaces Jansson's function, which it calls unless a test asks for a failure. */
json_t *json_object()
{
    static auto real = reinterpret_cast<decltype(&json_object)>(dlsym(RTLD_NEXT, "json_object"));
    return fake.json_object_fails ? nullptr : real();
}

namespace
{

constexpr const char *GOOD = "{\"duration\": 1234, \"properties\": {\"channels\": 2}, "
                             "\"media_types\": [\"audio/x-wav\", \"audio/x-mulaw\"]}";

class DiscoverMediaMetadata : public LogTest
{
  protected:
    DiscoverMediaMetadata()
    {
        fake = Fake();
        fake_discover_media = describe;
    }

    void TearDown() override
    {
        if (fake.kept) {
            EXPECT_EQ(fake.kept->refcount, 1u) << "the description was not released";
            json_decref(fake.kept);
        }
        LogTest::TearDown();
    }

    static std::string text(const json_t *value)
    {
        char *dump = json_dumps(value, JSON_COMPACT);
        std::string result = dump ? dump : "(null)";
        free(dump);
        return result;
    }

    void expect_none(const char *media_info)
    {
        fake.media_info = media_info;
        EXPECT_EQ(discover_media_get_metadata("/clips/a.wav"), nullptr);
        expect_log(G_LOG_LEVEL_WARNING, "Failed to unpack media information");
        expect_no_log();
    }
};

TEST_F(DiscoverMediaMetadata, DescribesTheFileOnceInAnEmptyObject)
{
    fake.media_info = GOOD;
    g_autoptr(discover_media_metadata) m = discover_media_get_metadata("/clips/a.wav");
    EXPECT_NE(m, nullptr);
    EXPECT_EQ(fake.discoveries, 1);
    EXPECT_EQ(fake.path, "/clips/a.wav");
    EXPECT_TRUE(fake.was_empty_object);
    EXPECT_EQ(fake.sized_path, "/clips/a.wav");
    expect_no_log();
}

TEST_F(DiscoverMediaMetadata, HoldsWhatTheFilesDescriptionAndSizeSay)
{
    fake.media_info = GOOD;
    fake.size_kb = 42;
    g_autoptr(discover_media_metadata) m = discover_media_get_metadata("/clips/a.wav");
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(text(m->media_types), "[\"audio/x-wav\",\"audio/x-mulaw\"]");
    EXPECT_EQ(text(m->properties), "{\"channels\":2}");
    EXPECT_EQ(m->duration_ms, 1234);
    EXPECT_EQ(m->media_size_kb, 42);
}

TEST_F(DiscoverMediaMetadata, OwnsItsPartsOfTheDescription)
{
    fake.media_info = GOOD;
    g_autoptr(discover_media_metadata) m = discover_media_get_metadata("/clips/a.wav");
    ASSERT_NE(m, nullptr);
    json_object_clear(fake.kept);
    EXPECT_EQ(m->media_types->refcount, 1u);
    EXPECT_EQ(m->properties->refcount, 1u);
}

TEST_F(DiscoverMediaMetadata, KeepsNegativeNumbersAndAnEmptyFile)
{
    fake.media_info = "{\"duration\": -140462611, \"properties\": {}, \"media_types\": []}";
    fake.size_kb = 0;
    g_autoptr(discover_media_metadata) m = discover_media_get_metadata("/clips/a.wav");
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->duration_ms, -140462611);
    EXPECT_EQ(m->media_size_kb, 0);
}

TEST_F(DiscoverMediaMetadata, WidensASizeThatWasCutWithItsSign)
{
    fake.media_info = GOOD;
    fake.size_kb = -1073741824;
    g_autoptr(discover_media_metadata) m = discover_media_get_metadata("/clips/a.wav");
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->media_size_kb, -1073741824);
}

TEST_F(DiscoverMediaMetadata, FileThatCannotBeDescribedIsLogged)
{
    EXPECT_EQ(discover_media_get_metadata("/clips/a.wav"), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "Could not obtain media info for: /clips/a.wav");
    expect_no_log();
}

TEST_F(DiscoverMediaMetadata, NullPathIsLogged)
{
    g_autoptr(GHashTable) memo = discover_media_memo_new();
    for (GHashTable *known : {memo, static_cast<GHashTable *>(nullptr)}) {
        EXPECT_EQ(discover_media_get_metadata_once(nullptr, known), nullptr);
        expect_log(G_LOG_LEVEL_WARNING, "Could not obtain media info for: (null)");
        expect_no_log();
    }
}

TEST_F(DiscoverMediaMetadata, DescriptionWithoutADurationIsLogged)
{
    expect_none("{\"properties\": {}, \"media_types\": []}");
}

TEST_F(DiscoverMediaMetadata, DurationThatIsNoIntegerIsLogged)
{
    expect_none("{\"duration\": 1.5, \"properties\": {}, \"media_types\": []}");
}

TEST_F(DiscoverMediaMetadata, DescriptionWithoutMediaTypesIsLogged)
{
    expect_none("{\"duration\": 1, \"properties\": {}}");
}

TEST_F(DiscoverMediaMetadata, DescriptionWithoutPropertiesIsLogged)
{
    /* The record already has the media types by then and must release them. */
    expect_none("{\"duration\": 1, \"media_types\": []}");
    EXPECT_EQ(json_object_get(fake.kept, "media_types")->refcount, 1u);
}

TEST_F(DiscoverMediaMetadata, FileWhoseSizeCannotBeReadHasNoRecord)
{
    fake.media_info = GOOD;
    fake.size_kb = -1;
    EXPECT_EQ(discover_media_get_metadata("/clips/a.wav"), nullptr);
    EXPECT_EQ(json_object_get(fake.kept, "media_types")->refcount, 1u);
    EXPECT_EQ(json_object_get(fake.kept, "properties")->refcount, 1u);
    expect_no_log();
}

TEST_F(DiscoverMediaMetadata, FileIsNotDescribedWithoutAnObject)
{
    fake.json_object_fails = true;
    EXPECT_EQ(discover_media_get_metadata("/clips/a.wav"), nullptr);
    EXPECT_EQ(fake.discoveries, 0);
    expect_no_log();
}

TEST_F(DiscoverMediaMetadata, FileThatTheMemoKnowsIsNotDescribedAgain)
{
    fake.media_info = GOOD;
    fake.size_kb = 42;
    {
        g_autoptr(GHashTable) memo = discover_media_memo_new();
        for (int i = 0; i < 3; i++) {
            g_autoptr(discover_media_metadata) m =
                discover_media_get_metadata_once("/clips/a.wav", memo);
            ASSERT_NE(m, nullptr);
            EXPECT_EQ(text(m->media_types), "[\"audio/x-wav\",\"audio/x-mulaw\"]");
            EXPECT_EQ(text(m->properties), "{\"channels\":2}");
            EXPECT_EQ(m->duration_ms, 1234);
            EXPECT_EQ(m->media_size_kb, 42);
        }
        EXPECT_EQ(fake.discoveries, 1);
    }
    g_autoptr(discover_media_metadata) m = discover_media_get_metadata("/clips/a.wav");
    EXPECT_NE(m, nullptr);
    EXPECT_EQ(fake.discoveries, 2);
    expect_no_log();
}

TEST_F(DiscoverMediaMetadata, FailureThatTheMemoKnowsIsLoggedForEachRecord)
{
    g_autoptr(GHashTable) memo = discover_media_memo_new();
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(discover_media_get_metadata_once("/clips/a.wav", memo), nullptr);
        expect_log(G_LOG_LEVEL_WARNING, "Could not obtain media info for: /clips/a.wav");
    }
    EXPECT_EQ(fake.discoveries, 1);
    EXPECT_EQ(discover_media_get_metadata_once("/clips/b.wav", memo), nullptr);
    EXPECT_EQ(fake.discoveries, 2);
    clear_log();
}

TEST_F(DiscoverMediaMetadata, FreeingNullDoesNothing)
{
    discover_media_free_metadata(nullptr);
    expect_no_log();
}

TEST_F(DiscoverMediaMetadata, FreeingDropsOneReferenceToEachPart)
{
    fake.media_info = GOOD;
    discover_media_metadata *m = discover_media_get_metadata("/clips/a.wav");
    ASSERT_NE(m, nullptr);
    json_object_clear(fake.kept);
    g_autoptr(json_t) media_types = json_incref(m->media_types);
    g_autoptr(json_t) properties = json_incref(m->properties);
    discover_media_free_metadata(m);
    EXPECT_EQ(media_types->refcount, 1u);
    EXPECT_EQ(properties->refcount, 1u);
}

TEST_F(DiscoverMediaMetadata, FreeingARecordWithoutPartsIsFine)
{
    discover_media_free_metadata(g_new0(discover_media_metadata, 1));
    expect_no_log();
}

TEST_F(DiscoverMediaMetadata, AccessorsLendTheParts)
{
    fake.media_info = GOOD;
    fake.size_kb = 7;
    g_autoptr(discover_media_metadata) m = discover_media_get_metadata("/clips/a.wav");
    ASSERT_NE(m, nullptr);
    json_object_clear(fake.kept);
    EXPECT_EQ(discover_media_metadata_get_media_types(m), m->media_types);
    EXPECT_EQ(discover_media_metadata_get_properties(m), m->properties);
    EXPECT_EQ(m->media_types->refcount, 1u);
    EXPECT_EQ(m->properties->refcount, 1u);
    EXPECT_EQ(discover_media_metadata_get_duration_ms(m), 1234);
    EXPECT_EQ(discover_media_metadata_get_media_size_kb(m), 7);
}

TEST_F(DiscoverMediaMetadata, AccessorsPassLongNumbersWhole)
{
    discover_media_metadata m = {nullptr, nullptr, 5000000000, 6000000000};
    EXPECT_EQ(discover_media_metadata_get_duration_ms(&m), 5000000000);
    EXPECT_EQ(discover_media_metadata_get_media_size_kb(&m), 6000000000);
}

TEST_F(DiscoverMediaMetadata, AccessorsAnswerNull)
{
    EXPECT_EQ(discover_media_metadata_get_media_types(nullptr), nullptr);
    EXPECT_EQ(discover_media_metadata_get_properties(nullptr), nullptr);
    EXPECT_EQ(discover_media_metadata_get_duration_ms(nullptr), -1);
    EXPECT_EQ(discover_media_metadata_get_media_size_kb(nullptr), -1);
}

} // namespace
