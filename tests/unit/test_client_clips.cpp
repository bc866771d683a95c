#include "client_clips.h"

#include "autoptr.h"
#include "client_bus.h"
#include "played_daemon.h"
#include "private_bus.h"
#include "temp_dir.h"

namespace
{

constexpr const char *DOOR = R"([{"0":{"name":"Door","fileName":"door.wav",)"
                             R"("mediaTypes":["audio/x-wav"],"size":113,"duration":1200}}])";

/* Sends two clips, the higher number first, with some unknown properties. */
int reply_clips(sd_bus_message *call)
{
    return sd_bus_reply_method_return(call, "a{ia{sv}}", 2, 7, 2, "Name", "s", "Bell", "Location",
                                      "s", "/etc/audioclips/bell.opus", 0, 5, "Location", "s",
                                      "/etc/audioclips/door.wav", "Name", "s", "Door", "Type", "s",
                                      "audio", "Colour", "(ii)", 1, 2, "Name2", "as", 1, "x");
}

class ClientClips : public BusTest
{
  protected:
    ClientClips()
        : client(client_bus_open(nullptr)),
          daemon({CLIENT_SONOBRIK.service, CLIENT_LEGACY.service}, [this](sd_bus_message *call) {
              return sd_bus_message_is_method_call(call, nullptr, "GetMetadata")
                         ? reply_metadata(call)
                         : reply_entries(call);
          })
    {
    }

    ~ClientClips() override
    {
        sd_bus_flush_close_unref(client);
    }

    /* Sets the replies to the next list. */
    void set_replies(PlayedDaemon::Handler entries, const char *metadata = "[]")
    {
        reply_entries = std::move(entries);
        reply_metadata = [metadata](sd_bus_message *call) {
            return sd_bus_reply_method_return(call, "s", metadata);
        };
    }

    /* Returns one line per clip, or "code: message". */
    std::string list(bool with_metadata = true)
    {
        g_autoptr(GError) error = nullptr;
        g_autoptr(GPtrArray) clips = client_clips_list(client, with_metadata, &error);
        EXPECT_EQ(clips == nullptr, error != nullptr);
        if (!clips) {
            return std::to_string(error->code) + ": " + error->message;
        }
        std::string text;
        for (guint i = 0; i < clips->len; i++) {
            const auto *clip = static_cast<const ClientClip *>(g_ptr_array_index(clips, i));
            g_autofree char *types =
                clip->media_types ? g_strjoinv("+", clip->media_types) : g_strdup("none");
            text += std::to_string(clip->number) + " " + clip->name + " " + clip->location + " " +
                    types + " " + std::to_string(clip->size_kib) + " " +
                    std::to_string(clip->duration_ms) + "\n";
        }
        return text;
    }

    std::string unexpected(const char *text = "")
    {
        return std::to_string(CLIENT_ERROR_REPLY) + ": " + text;
    }

    sd_bus *client;
    PlayedDaemon::Handler reply_entries;
    PlayedDaemon::Handler reply_metadata;
    PlayedDaemon daemon;
};

TEST_F(ClientClips, SortsByNumber)
{
    set_replies(reply_clips);
    EXPECT_EQ(list(false), "0 Door /etc/audioclips/door.wav none -1 -1\n"
                           "7 Bell /etc/audioclips/bell.opus none -1 -1\n");
}

TEST_F(ClientClips, AddsTheMetadata)
{
    set_replies(reply_clips, DOOR);
    EXPECT_EQ(list(), "0 Door /etc/audioclips/door.wav audio/x-wav 113 1200\n"
                      "7 Bell /etc/audioclips/bell.opus none -1 -1\n");
}

TEST_F(ClientClips, ReturnsAnEmptyListIfThereAreNoClips)
{
    set_replies([](sd_bus_message *call) {
        return sd_bus_reply_method_errorf(call, "com.vesk.Sonobrik.Legacy.GetConfigurations", "%s",
                                          "");
    });
    EXPECT_EQ(list(), "");
}

TEST_F(ClientClips, PassesOtherErrorsOn)
{
    set_replies([](sd_bus_message *call) {
        return sd_bus_reply_method_errorf(call, "org.freedesktop.DBus.Error.AccessDenied", "no");
    });
    EXPECT_EQ(list(), std::to_string(CLIENT_ERROR_DENIED) + ": no");
}

TEST_F(ClientClips, RejectsReplyOfUnexpectedType)
{
    set_replies([](sd_bus_message *call) { return sd_bus_reply_method_return(call, nullptr); });
    EXPECT_TRUE(list().starts_with(unexpected()));
    set_replies(
        [](sd_bus_message *call) { return sd_bus_reply_method_return(call, "s", "no list"); });
    EXPECT_TRUE(list().starts_with(unexpected()));
    set_replies([](sd_bus_message *call) {
        return sd_bus_reply_method_return(call, "a{sa{sv}}", 1, "0", 1, "Name", "s", "Door");
    });
    EXPECT_TRUE(list().starts_with(unexpected()));
}

TEST_F(ClientClips, SkipsPropertiesOfUnexpectedType)
{
    set_replies([](sd_bus_message *call) {
        return sd_bus_reply_method_return(call, "a{ia{sv}}", 1, 3, 2, "Name", "i", 5, "Location",
                                          "ay", 2, 1, 2);
    });
    EXPECT_EQ(list(), "3   none -1 -1\n");
}

TEST_F(ClientClips, RejectsMetadataThatIsNotAnArray)
{
    set_replies(reply_clips, "{}");
    EXPECT_EQ(list(), unexpected("not a JSON array"));
    set_replies(reply_clips, "[{");
    EXPECT_TRUE(list().starts_with(unexpected("not a JSON array: "))) << list();
    set_replies(reply_clips, "");
    EXPECT_TRUE(list().starts_with(unexpected("not a JSON array: "))) << list();
    reply_metadata = [](sd_bus_message *call) {
        return sd_bus_reply_method_return(call, "i", 4);
    };
    EXPECT_TRUE(list().starts_with(unexpected()));
}

TEST_F(ClientClips, SkipsInvalidMetadata)
{
    const char *none = "0 Door /etc/audioclips/door.wav none -1 -1\n"
                       "7 Bell /etc/audioclips/bell.opus none -1 -1\n";
    for (const char *odd : {
             "[1, null, \"0\", [], {}]",
             R"([{"0": 5}, {"7": null}])",
             R"([{"0": {"mediaTypes": "audio/x-wav"}}])",
             R"([{"00": {"mediaTypes": ["a"]}}, {"+7": {"mediaTypes": ["a"]}}])",
             R"([{"-1": {"mediaTypes": ["a"]}}, {"5": {"mediaTypes": ["a"]}}])",
             R"([{"4294967296": {"mediaTypes": ["a"]}}, {"": {"mediaTypes": ["a"]}}])",
             R"([{"99999999999999999999": {"mediaTypes": ["a"]}}])",
         }) {
        set_replies(reply_clips, odd);
        EXPECT_EQ(list(), none) << odd;
    }
    set_replies(reply_clips,
                R"([{"0": {"mediaTypes": [1, "a", null], "size": "big", "duration": 1.5}}])");
    EXPECT_TRUE(list().starts_with("0 Door /etc/audioclips/door.wav a -1 -1\n")) << list();
}

TEST_F(ClientClips, DoesNotEscapeNames)
{
    set_replies([](sd_bus_message *call) {
        return sd_bus_reply_method_return(call, "a{ia{sv}}", 1, 3, 1, "Name", "s", "a\n\x1b[2J\t");
    });
    EXPECT_EQ(list(), "3 a\n\x1b[2J\t  none -1 -1\n");
}

GPtrArray *new_clips()
{
    return g_ptr_array_new_with_free_func(
        [](gpointer clip) { client_clip_free(static_cast<ClientClip *>(clip)); });
}

/* Adds a clip to `clips`. */
void add(GPtrArray *clips, gint32 number, const char *name, const char *location = "")
{
    auto *clip = g_new0(ClientClip, 1);
    clip->number = number;
    clip->name = g_strdup(name);
    clip->location = g_strdup(location);
    g_ptr_array_add(clips, clip);
}

std::string find(const GPtrArray *clips, const char *text)
{
    g_autoptr(GError) error = nullptr;
    const ClientClip *clip = client_clips_find(clips, text, &error);
    EXPECT_EQ(clip == nullptr, g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_NO_CLIP));
    return clip ? std::to_string(clip->number) : error->message;
}

TEST(ClientClipsFind, PrefersANumberToAName)
{
    g_autoptr(GPtrArray) clips = new_clips();
    add(clips, 0, "Door");
    add(clips, 1, "0");
    add(clips, 2, "twice");
    add(clips, 3, "twice");
    add(clips, 4, "17");
    add(clips, 5, "");
    EXPECT_EQ(find(clips, "Door"), "0");
    EXPECT_EQ(find(clips, "0"), "0");
    EXPECT_EQ(find(clips, "17"), "4");
    EXPECT_EQ(find(clips, "door"), "no such clip: 'door'");
    EXPECT_EQ(find(clips, "00"), "no such clip: '00'");
    EXPECT_EQ(find(clips, "-1"), "no such clip: '-1'");
    EXPECT_EQ(find(clips, "4294967296"), "no such clip: '4294967296'");
    EXPECT_EQ(find(clips, "twice"), "several clips are named 'twice': 2, 3; use the number");
    EXPECT_EQ(find(clips, "Doo\xff"), "no such clip: 'Doo\xff'");
    EXPECT_EQ(client_clips_get(clips, 3)->number, 3);
    EXPECT_EQ(client_clips_get(clips, 6), nullptr);
    EXPECT_EQ(client_clips_get(clips, G_MAXINT64), nullptr);
}

TEST(ClientClipsLowestFree, IsNotAboveAFreeNumber)
{
    g_autoptr(GPtrArray) clips = new_clips();
    EXPECT_TRUE(client_clips_is_lowest_free(clips, 0));
    EXPECT_FALSE(client_clips_is_lowest_free(clips, 1));
    for (const gint32 number : {0, 1, 3}) {
        add(clips, number, "");
    }
    EXPECT_TRUE(client_clips_is_lowest_free(clips, 1));
    EXPECT_TRUE(client_clips_is_lowest_free(clips, 2));
    EXPECT_FALSE(client_clips_is_lowest_free(clips, 3));
}

TEST(ClientClipsFindSharer, FindsAnotherClipWithTheSameFile)
{
    g_autoptr(GPtrArray) clips = new_clips();
    add(clips, 0, "Door", "/etc/audioclips/door.wav");
    add(clips, 1, "Door", "/etc/audioclips/bell.wav");
    add(clips, 4, "Gate", "/etc/audioclips/door.wav");
    EXPECT_EQ(client_clips_find_sharer(clips, client_clips_get(clips, 0)),
              client_clips_get(clips, 4));
    EXPECT_EQ(client_clips_find_sharer(clips, client_clips_get(clips, 4)),
              client_clips_get(clips, 0));
    EXPECT_EQ(client_clips_find_sharer(clips, client_clips_get(clips, 1)), nullptr);
}

TEST(ClientClipsFindSharer, FindsTheSameFileByAnotherPath)
{
    const TempDir folder;
    const std::string door = folder.file("door.wav");
    folder.file("bell.wav");
    folder.link("link.wav", "door.wav");
    for (const char *name : {"//door.wav", "/./door.wav", "/link.wav"}) {
        g_autoptr(GPtrArray) clips = new_clips();
        add(clips, 0, "Bell", (folder.root + "//bell.wav").c_str());
        add(clips, 1, "Door", door.c_str());
        EXPECT_EQ(client_clips_find_sharer(clips, client_clips_get(clips, 1)), nullptr);
        add(clips, 2, "Gate", (folder.root + name).c_str());
        EXPECT_EQ(client_clips_find_sharer(clips, client_clips_get(clips, 1)),
                  client_clips_get(clips, 2))
            << name;
    }
}

TEST(ClientClipsFindSharer, DoesNotTakeMissingFilesForTheSame)
{
    const TempDir folder;
    g_autoptr(GPtrArray) clips = new_clips();
    add(clips, 0, "Door", folder.path("door.wav").c_str());
    add(clips, 1, "Bell", folder.path("bell.wav").c_str());
    EXPECT_EQ(client_clips_find_sharer(clips, client_clips_get(clips, 0)), nullptr);
}

TEST_F(ClientClips, ARenameSendsTheNameAsBytes)
{
    g_autoptr(sd_bus_message) call = client_clips_new_rename(client, 7, "Tür", nullptr);
    ASSERT_NE(call, nullptr);
    ASSERT_GE(sd_bus_message_seal(call, 1, 0), 0);
    EXPECT_TRUE(
        sd_bus_message_is_method_call(call, CLIENT_LEGACY.interface, "SetConfigurationEntry"));
    gint32 number = 0;
    const char *property = nullptr;
    const void *bytes = nullptr;
    size_t size = 0;
    ASSERT_GT(sd_bus_message_read(call, "is", &number, &property), 0);
    ASSERT_GT(sd_bus_message_enter_container(call, SD_BUS_TYPE_VARIANT, "ay"), 0);
    ASSERT_GT(sd_bus_message_read_array(call, 'y', &bytes, &size), 0);
    EXPECT_EQ(number, 7);
    EXPECT_STREQ(property, "Name");
    EXPECT_EQ(std::string(static_cast<const char *>(bytes), size), "Tür");
}

TEST(ClientClipsRelative, RemovesTheClipFolderOnly)
{
    EXPECT_STREQ(client_clips_relative("/etc/audioclips/a/b.wav"), "a/b.wav");
    EXPECT_STREQ(client_clips_relative("/etc/audioclipsX/a.wav"), "/etc/audioclipsX/a.wav");
    EXPECT_STREQ(client_clips_relative("/etc/audioclips"), "/etc/audioclips");
    EXPECT_STREQ(client_clips_relative(""), "");
}

TEST_F(ClientClips, ReadsClipsFromTheirMetadataAlone)
{
    set_replies(reply_clips,
                R"([{"7":{"name":"Bell","fileName":"bell.wav","mediaTypes":["audio/x-wav"],)"
                R"("size":1,"duration":2},"-1":{},"4294967296":{},"x":{}},)"
                R"({"0":{"name":7,"mediaTypes":[]}}])");
    g_autoptr(GPtrArray) clips = client_clips_list_metadata(client, nullptr);
    ASSERT_NE(clips, nullptr);
    ASSERT_EQ(clips->len, 2U);
    const auto *first = static_cast<const ClientClip *>(g_ptr_array_index(clips, 0));
    EXPECT_EQ(first->number, 0);
    EXPECT_STREQ(first->name, "");
    EXPECT_STREQ(first->file_name, "");
    const auto *second = static_cast<const ClientClip *>(g_ptr_array_index(clips, 1));
    EXPECT_EQ(second->number, 7);
    EXPECT_STREQ(second->name, "Bell");
    EXPECT_STREQ(second->location, "");
    EXPECT_STREQ(second->file_name, "bell.wav");
    EXPECT_EQ(second->duration_ms, 2);
    set_replies(reply_clips, "{}");
    g_autoptr(GError) error = nullptr;
    EXPECT_EQ(client_clips_list_metadata(client, &error), nullptr);
    EXPECT_TRUE(g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_REPLY));
}

} // namespace
