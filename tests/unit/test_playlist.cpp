#include "playlist.h"

#include <dlfcn.h>
#include <gst/gst.h>
#include <set>
#include <string>
#include <vector>

#include "discover_media_supported.h"
#include "fake_service_frame.h"
#include "file_utils.h"
#include "log_test.h"

namespace
{

using Paths = std::vector<std::string>;

struct Fake {
    std::set<std::string> supported;
    Paths inspected;
    std::vector<int> feeds; /* of the watchdog, before each inspection */
    bool message_asked_for = false;

    Paths listing;
    Paths patterns;
    int lists_freed = 0;

    gint32 draw = 0;
    int draws = 0;
    gint32 draw_begin = -1;
    gint32 draw_end = -1;

    bool uri_fails = false;
};

Fake fake;

} // namespace

bool discover_media_is_supported(const char *path, char **error_message)
{
    fake.inspected.emplace_back(path);
    fake.feeds.push_back(watchdog_feeds);
    fake.message_asked_for |= error_message != nullptr;
    return fake.supported.contains(path);
}

GSList *file_utils_get_files_from_wildcard(const char *path_pattern)
{
    fake.patterns.emplace_back(path_pattern);
    GSList *files = nullptr;
    for (const std::string &path : fake.listing) {
        files = g_slist_append(files, g_strdup(path.c_str()));
    }
    return files;
}

void file_utils_free_list(GSList **list)
{
    fake.lists_freed++;
    g_slist_free_full(*list, g_free);
    *list = nullptr;
}

/* Replaces GLib's own, so that a test decides which number is drawn. */
gint32 g_random_int_range(gint32 begin, gint32 end)
{
    fake.draws++;
    fake.draw_begin = begin;
    fake.draw_end = end;
    return fake.draw;
}

/* Replaces GStreamer's own, and calls it unless a test asks for a failure. */
gchar *gst_filename_to_uri(const gchar *filename, GError **error)
{
    if (fake.uri_fails) {
        g_set_error(error, G_CONVERT_ERROR, G_CONVERT_ERROR_BAD_URI, "cannot be named");
        return nullptr;
    }
    static auto real =
        reinterpret_cast<decltype(&gst_filename_to_uri)>(dlsym(RTLD_NEXT, "gst_filename_to_uri"));
    return real(filename, error);
}

namespace
{

class PlaylistTest : public LogTest
{
  protected:
    static void SetUpTestSuite()
    {
        gst_init(nullptr, nullptr);
    }

    PlaylistTest() : playlist(playlist_new())
    {
        fake = Fake();
    }

    ~PlaylistTest() override
    {
        playlist_free(playlist);
    }

    void fill(const Paths &paths)
    {
        for (const std::string &path : paths) {
            fake.supported.insert(path);
            EXPECT_TRUE(playlist_add(playlist, path.c_str()));
        }
    }

    Paths content() const
    {
        Paths paths;
        for (GList *file = playlist->files; file; file = file->next) {
            paths.emplace_back(static_cast<const char *>(file->data));
        }
        return paths;
    }

    /* Returns the file that is picked if `index` is drawn. */
    std::string draw(gint32 index, const char *avoid) const
    {
        fake.draw = index;
        const char *path = playlist_get_random_file(playlist, avoid);
        return path ? path : "(null)";
    }

    std::string draw_uri(gint32 index, const char *current_uri) const
    {
        fake.draw = index;
        g_autofree char *uri = playlist_get_random_uri(playlist, current_uri);
        return uri ? uri : "(null)";
    }

    Playlist *playlist;
};

TEST_F(PlaylistTest, NewPlaylistIsEmpty)
{
    EXPECT_EQ(playlist->files, nullptr);
    EXPECT_EQ(playlist_get_length(playlist), 0u);
}

TEST_F(PlaylistTest, NullPlaylistIsAnsweredWithTheFailureValue)
{
    playlist_clear(nullptr);
    playlist_free(nullptr);
    EXPECT_FALSE(playlist_add(nullptr, "/a.wav"));
    EXPECT_FALSE(playlist_add_from_wildcard_path(nullptr, "/a.wav"));
    EXPECT_EQ(playlist_get_length(nullptr), 0u);
    EXPECT_EQ(playlist_get_random_file(nullptr, nullptr), nullptr);
    EXPECT_EQ(playlist_get_random_uri(nullptr, nullptr), nullptr);
    EXPECT_TRUE(fake.inspected.empty());
    EXPECT_TRUE(fake.patterns.empty());
    expect_no_log();
}

TEST_F(PlaylistTest, NullPathIsRefused)
{
    EXPECT_FALSE(playlist_add(playlist, nullptr));
    EXPECT_FALSE(playlist_add_from_wildcard_path(playlist, nullptr));
    EXPECT_TRUE(fake.inspected.empty());
    EXPECT_TRUE(fake.patterns.empty());
}

TEST_F(PlaylistTest, SupportedFilesAreAddedAtTheEnd)
{
    fill({"/b.wav", "/a.wav", "/c.wav"});
    EXPECT_EQ(content(), (Paths{"/b.wav", "/a.wav", "/c.wav"}));
    EXPECT_EQ(playlist_get_length(playlist), 3u);
    EXPECT_EQ(fake.inspected, (Paths{"/b.wav", "/a.wav", "/c.wav"}));
}

TEST_F(PlaylistTest, AddedPathIsACopy)
{
    fake.supported = {"/a.wav"};
    std::string path = "/a.wav";
    EXPECT_TRUE(playlist_add(playlist, path.c_str()));
    path[1] = 'z';
    EXPECT_EQ(content(), Paths{"/a.wav"});
}

TEST_F(PlaylistTest, SameFileMayBeAddedTwice)
{
    fill({"/a.wav", "/a.wav"});
    EXPECT_EQ(playlist_get_length(playlist), 2u);
}

TEST_F(PlaylistTest, UnsupportedFileIsRefusedSilently)
{
    EXPECT_FALSE(playlist_add(playlist, "/a.flac"));
    EXPECT_EQ(playlist_get_length(playlist), 0u);
    expect_no_log();
}

TEST_F(PlaylistTest, ReasonOfARefusalIsNotAskedFor)
{
    fake.listing = {"/clips/a.flac"};
    playlist_add(playlist, "/a.flac");
    playlist_add_from_wildcard_path(playlist, "/clips/*");
    EXPECT_FALSE(fake.message_asked_for);
}

TEST_F(PlaylistTest, LocationOfOneFileAddsItAloneWithoutListing)
{
    fake.supported = {"/clips/a.wav", "/clips/b.wav"};
    fake.listing = {"/clips/a.wav", "/clips/b.wav"};
    EXPECT_TRUE(playlist_add_from_wildcard_path(playlist, "/clips/a.wav"));
    EXPECT_EQ(content(), Paths{"/clips/a.wav"});
    EXPECT_TRUE(fake.patterns.empty());
}

TEST_F(PlaylistTest, LiteralNameWithWildcardCharactersWins)
{
    fake.supported = {"/clips/*.wav", "/clips/a.wav"};
    fake.listing = {"/clips/*.wav", "/clips/a.wav"};
    EXPECT_TRUE(playlist_add_from_wildcard_path(playlist, "/clips/*.wav"));
    EXPECT_EQ(content(), Paths{"/clips/*.wav"});
    EXPECT_TRUE(fake.patterns.empty());
}

TEST_F(PlaylistTest, WildcardAddsTheSupportedFilesInListingOrder)
{
    fake.supported = {"/clips/c.wav", "/clips/a.wav", "/clips/b.wav"};
    fake.listing = {"/clips/c.wav", "/clips/text.wav", "/clips/a.wav", "/clips/b.wav"};
    EXPECT_TRUE(playlist_add_from_wildcard_path(playlist, "/clips/*.wav"));
    EXPECT_EQ(content(), (Paths{"/clips/c.wav", "/clips/a.wav", "/clips/b.wav"}));
    EXPECT_EQ(fake.patterns, Paths{"/clips/*.wav"});
    EXPECT_EQ(fake.lists_freed, 1);
}

TEST_F(PlaylistTest, WatchdogIsFedBeforeEachListedFile)
{
    watchdog_feeds = 0;
    fake.listing = {"/clips/a.wav", "/clips/b.wav", "/clips/c.wav"};
    EXPECT_FALSE(playlist_add_from_wildcard_path(playlist, "/clips/*"));
    EXPECT_EQ(fake.feeds, (std::vector<int>{0, 1, 2, 3})); /* the first is the literal name */
}

TEST_F(PlaylistTest, WildcardWithoutSupportedFilesIsRefused)
{
    fake.listing = {"/clips/a.txt", "/clips/b.txt"};
    EXPECT_FALSE(playlist_add_from_wildcard_path(playlist, "/clips/*"));
    EXPECT_EQ(playlist_get_length(playlist), 0u);
    EXPECT_EQ(fake.lists_freed, 1);
}

TEST_F(PlaylistTest, WildcardWhoseLastFileIsUnsupportedStillCounts)
{
    fake.supported = {"/clips/a.wav"};
    fake.listing = {"/clips/a.wav", "/clips/b.txt"};
    EXPECT_TRUE(playlist_add_from_wildcard_path(playlist, "/clips/*"));
}

TEST_F(PlaylistTest, LocationInAMissingDirectoryIsRefused)
{
    EXPECT_FALSE(playlist_add_from_wildcard_path(playlist, "/missing/*.wav"));
    EXPECT_EQ(fake.patterns, Paths{"/missing/*.wav"});
}

TEST_F(PlaylistTest, LocationAddsToWhatIsThereAlready)
{
    fill({"/a.wav"});
    fake.listing = {"/clips/b.txt"};
    EXPECT_FALSE(playlist_add_from_wildcard_path(playlist, "/clips/*"));
    EXPECT_EQ(content(), Paths{"/a.wav"});
}

TEST_F(PlaylistTest, ClearedPlaylistIsEmptyAndCanBeFilledAgain)
{
    fill({"/a.wav", "/b.wav"});
    playlist_clear(playlist);
    EXPECT_EQ(playlist->files, nullptr);
    fill({"/c.wav"});
    EXPECT_EQ(content(), Paths{"/c.wav"});
}

TEST_F(PlaylistTest, EmptyPlaylistYieldsNothingWithoutADraw)
{
    EXPECT_EQ(draw(0, nullptr), "(null)");
    EXPECT_EQ(draw_uri(0, nullptr), "(null)");
    EXPECT_EQ(fake.draws, 0);
    expect_no_log();
}

TEST_F(PlaylistTest, DrawIsBoundedByTheLength)
{
    fill({"/a.wav", "/b.wav", "/c.wav"});
    draw(0, nullptr);
    EXPECT_EQ(fake.draw_begin, 0);
    EXPECT_EQ(fake.draw_end, 3);
    EXPECT_EQ(fake.draws, 1);
}

TEST_F(PlaylistTest, DrawnFileIsReturned)
{
    fill({"/a.wav", "/b.wav", "/c.wav"});
    EXPECT_EQ(draw(0, nullptr), "/a.wav");
    EXPECT_EQ(draw(1, nullptr), "/b.wav");
    EXPECT_EQ(draw(2, "/a.wav"), "/c.wav");
}

TEST_F(PlaylistTest, DrawnFileStaysThePlaylists)
{
    fill({"/a.wav"});
    EXPECT_EQ(playlist_get_random_file(playlist, nullptr), playlist->files->data);
}

TEST_F(PlaylistTest, OnlyFileIsReturnedEvenWhenItIsToBeAvoided)
{
    fill({"/a.wav"});
    EXPECT_EQ(draw(0, "/a.wav"), "/a.wav");
    EXPECT_EQ(draw(0, "/other.wav"), "/a.wav");
    EXPECT_EQ(draw(0, nullptr), "/a.wav");
}

TEST_F(PlaylistTest, SuccessorIsReturnedInsteadOfTheFileToBeAvoided)
{
    fill({"/a.wav", "/b.wav"});
    EXPECT_EQ(draw(0, "/a.wav"), "/b.wav");
    EXPECT_EQ(draw(1, "/a.wav"), "/b.wav");
}

TEST_F(PlaylistTest, SuccessorOfTheLastFileIsTheFirst)
{
    fill({"/a.wav", "/b.wav", "/c.wav"});
    EXPECT_EQ(draw(2, "/c.wav"), "/a.wav");
}

TEST_F(PlaylistTest, SuccessorIsReturnedEvenWhenItIsTheSameFile)
{
    fill({"/a.wav", "/a.wav", "/b.wav"});
    EXPECT_EQ(draw(0, "/a.wav"), "/a.wav");
}

TEST_F(PlaylistTest, UriNamesTheDrawnFile)
{
    fill({"/clips/a.wav", "/clips/b c.wav"});
    EXPECT_EQ(draw_uri(0, nullptr), "file:///clips/a.wav");
    EXPECT_EQ(draw_uri(1, nullptr), "file:///clips/b%20c.wav");
    expect_no_log();
}

TEST_F(PlaylistTest, UriOfARelativePathIsAbsolute)
{
    fill({"a.wav"});
    g_autofree char *folder = g_get_current_dir();
    g_autofree char *expected =
        g_filename_to_uri((std::string(folder) + "/a.wav").c_str(), nullptr, nullptr);
    EXPECT_EQ(draw_uri(0, nullptr), expected);
}

TEST_F(PlaylistTest, FileOfTheCurrentUriIsAvoided)
{
    fill({"/a.wav", "/b.wav"});
    EXPECT_EQ(draw_uri(0, "file:///a.wav"), "file:///b.wav");
    EXPECT_EQ(draw_uri(1, "file:///a.wav"), "file:///b.wav");
}

TEST_F(PlaylistTest, SchemeOfTheCurrentUriIsSkippedUnread)
{
    fill({"/a.wav", "/b.wav"});
    EXPECT_EQ(draw_uri(0, "1234567/a.wav"), "file:///b.wav");
    EXPECT_EQ(draw_uri(0, "/a.wav"), "file:///a.wav");
}

TEST_F(PlaylistTest, CurrentUriShorterThanASchemeAvoidsNothing)
{
    fill({"/a.wav", "/b.wav"});
    for (const char *uri : {"", "file", "file://"}) {
        EXPECT_EQ(draw_uri(0, uri), "file:///a.wav");
    }
}

TEST_F(PlaylistTest, PathThatHasNoUriIsLogged)
{
    fill({"/a.wav"});
    fake.uri_fails = true;
    EXPECT_EQ(draw_uri(0, nullptr), "(null)");
    expect_log(G_LOG_LEVEL_WARNING, "Could not create uri from file path '/a.wav', error message "
                                    "'cannot be named'.");
    expect_no_log();
}

} // namespace
