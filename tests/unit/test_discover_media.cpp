/*
 * Tests how media discovery checks a path and handles the discoverer's results.
 * test_discover_media_streams.cpp tests the walk over the streams, test_discover_media_files.cpp
 * runs GStreamer's own discoverer on real files.
 */

#include "discover_media.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "discover_media_test.h"
#include "write_lease.h"

namespace
{

class DiscoverMediaRefusal : public DiscoverMedia
{
  protected:
    /* Refused without a log line, before the discoverer runs. */
    void expect_refused_unopened(const std::string &special)
    {
        EXPECT_FALSE(discover_media(special.c_str(), media_info));
        EXPECT_EQ(fake.discoverers, 0);
        EXPECT_EQ(text(media_info), "{}");
        expect_no_log();
    }
};

class DiscoverMediaDuration : public DiscoverMedia
{
  protected:
    gint64 duration_of(GstClockTime duration)
    {
        json_object_clear(media_info);
        fake.duration = duration;
        EXPECT_TRUE(discover());
        return json_integer_value(json_object_get(media_info, "duration"));
    }
};

/* Files and arguments that are refused. */

TEST_F(DiscoverMediaRefusal, NullPathIsRefusedSilently)
{
    EXPECT_FALSE(discover_media(nullptr, media_info));
    expect_no_log();
}

TEST_F(DiscoverMediaRefusal, MissingFileIsRefusedSilently)
{
    expect_refused_unopened(dir.path("missing.wav"));
}

TEST_F(DiscoverMediaRefusal, LinkToNothingIsRefusedSilently)
{
    expect_refused_unopened(dir.link("link.wav", "missing.wav"));
}

TEST_F(DiscoverMediaRefusal, FifoIsRefusedUnopened)
{
    const std::string fifo = dir.path("fifo.wav");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    expect_refused_unopened(fifo);
}

TEST_F(DiscoverMediaRefusal, LinkToAFifoIsRefusedUnopened)
{
    ASSERT_EQ(mkfifo(dir.path("fifo.wav").c_str(), 0600), 0);
    expect_refused_unopened(dir.link("link.wav", "fifo.wav"));
}

TEST_F(DiscoverMediaRefusal, SocketIsRefusedUnopened)
{
    expect_refused_unopened(dir.socket("socket.wav"));
}

TEST_F(DiscoverMediaRefusal, DeviceIsRefusedUnopened)
{
    expect_refused_unopened("/dev/zero");
}

TEST_F(DiscoverMediaRefusal, LinkToAFileIsFollowed)
{
    fake.top = audio("audio/x-wav");
    EXPECT_TRUE(discover_media(dir.link("link.wav", "clip.wav").c_str(), media_info));
}

TEST_F(DiscoverMediaRefusal, FileIsLookedAtBeforeTheObject)
{
    EXPECT_FALSE(discover_media(dir.path("missing.wav").c_str(), nullptr));
    expect_no_log();
}

TEST_F(DiscoverMediaRefusal, ObjectIsCheckedBeforeTheKindOfFile)
{
    const std::string fifo = dir.path("fifo.wav");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    json_object_set_new(media_info, "mine", json_integer(1));
    for (const std::string &special : {fifo, dir.root, dir.socket("socket.wav")}) {
        EXPECT_FALSE(discover_media(special.c_str(), nullptr));
        expect_log(G_LOG_LEVEL_INFO, "No JSON object specified.");
        EXPECT_FALSE(discover_media(special.c_str(), media_info));
        expect_log(G_LOG_LEVEL_INFO, "Expected empty JSON object.");
        expect_no_log();
    }
}

TEST_F(DiscoverMediaRefusal, RunningOutOfDescriptorsIsLogged)
{
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const bool success = discover();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_FALSE(success);
    expect_log(G_LOG_LEVEL_WARNING, "Could not open '" + path + "': Too many open files");
    expect_no_log();
    EXPECT_EQ(fake.discoverers, 0);
}

TEST_F(DiscoverMediaRefusal, LeasedFileIsLogged)
{
    const size_t before = count_open_files();
    WriteLease lease(path);
    ASSERT_EQ(lease.reason(), 0);
    EXPECT_FALSE(discover());
    expect_log(G_LOG_LEVEL_WARNING,
               "Could not open '" + path + "': Resource temporarily unavailable");
    expect_no_log();
    EXPECT_EQ(fake.discoverers, 0);
    EXPECT_EQ(text(media_info), "{}");
    lease.release();
    EXPECT_EQ(count_open_files(), before);
}

TEST_F(DiscoverMediaRefusal, NullObjectIsRefused)
{
    EXPECT_FALSE(discover_media(path.c_str(), nullptr));
    expect_log(G_LOG_LEVEL_INFO, "No JSON object specified.");
    expect_no_log();
    EXPECT_EQ(fake.discoverers, 0);
}

TEST_F(DiscoverMediaRefusal, ObjectThatIsNotEmptyIsRefusedAndLeftAsItWas)
{
    json_object_set_new(media_info, "mine", json_integer(1));
    EXPECT_FALSE(discover());
    expect_log(G_LOG_LEVEL_INFO, "Expected empty JSON object.");
    expect_no_log();
    EXPECT_EQ(text(media_info), "{\"mine\":1}");
    EXPECT_EQ(fake.discoverers, 0);
}

TEST_F(DiscoverMediaRefusal, PathThatHasNoUriIsLogged)
{
    fake.uri_error = "cannot be named";
    EXPECT_FALSE(discover());
    expect_log(G_LOG_LEVEL_INFO,
               "Could not create uri from path '" + path + "', error message 'cannot be named'.");
    expect_no_log();
    EXPECT_EQ(fake.discoverers, 0);
}

/* The discoverer's results. */

TEST_F(DiscoverMedia, DiscovererGetsTheFileAndFiveSeconds)
{
    fake.top = audio("audio/x-wav");
    EXPECT_TRUE(discover());
    EXPECT_EQ(fake.content, "content of the clip");
    EXPECT_EQ(fake.timeout, 5000000000u);
    EXPECT_EQ(fake.discoverers, 1);
    expect_no_log();
}

TEST_F(DiscoverMedia, FileThatIsReplacedAfterTheCheckIsStillTheOneProbed)
{
    fake.top = audio("audio/x-wav");
    fake.before_discovery = [this] {
        ASSERT_EQ(unlink(path.c_str()), 0);
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    };
    EXPECT_TRUE(discover());
    EXPECT_EQ(fake.content, "content of the clip");
}

TEST_F(DiscoverMedia, FileCannotBeLeasedWhileItIsProbed)
{
    fake.top = audio("audio/x-wav");
    int reason = 0;
    fake.before_discovery = [&] {
        reason = WriteLease(path).reason();
    };
    EXPECT_TRUE(discover());
    EXPECT_EQ(reason, EAGAIN);
    EXPECT_EQ(WriteLease(path).reason(), 0);
}

/* If the discoverer opened the file, its owner could lease it as soon as it may be read. */
TEST_F(DiscoverMedia, FileThatMayNotBeReadIsNotReadLaterEither)
{
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    if (access(path.c_str(), R_OK) == 0) {
        GTEST_SKIP() << "this user may read every file";
    }
    const size_t before = count_open_files();
    fake.result = 2;
    fake.error_names_file = true;
    fake.before_discovery = [this] {
        ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    };
    EXPECT_FALSE(discover());
    EXPECT_EQ(fake.content, "");
    expect_log(G_LOG_LEVEL_INFO,
               "Discoverer error: 'Could not open file \"" + path + "\" for reading.'.");
    expect_no_log();
    EXPECT_EQ(count_open_files(), before);
}

TEST_F(DiscoverMedia, FileIsClosedWhateverTheOutcome)
{
    const size_t before = count_open_files();
    fake.top = audio("audio/x-wav");
    EXPECT_TRUE(discover());
    EXPECT_FALSE(discover()); /* the object is no longer empty */
    json_object_clear(media_info);
    fake.result = 4;
    EXPECT_FALSE(discover());
    EXPECT_EQ(count_open_files(), before);
    clear_log();
}

TEST_F(DiscoverMedia, DiscovererThatCannotBeMadeIsLogged)
{
    fake.new_error = "no decoder";
    EXPECT_FALSE(discover());
    expect_log(G_LOG_LEVEL_WARNING, "Error creating discoverer instance: 'no decoder'.");
    expect_no_log();
}

TEST_F(DiscoverMedia, UriThatCannotBeDiscoveredIsLoggedWithTheReason)
{
    fake.has_info = false;
    fake.error = "already busy";
    EXPECT_FALSE(discover());
    expect_log(G_LOG_LEVEL_WARNING, "Error discovering uri 'already busy'.");
    expect_no_log();
}

TEST_F(DiscoverMedia, ErrorOfTheDiscovererIsLogged)
{
    fake.result = 2;
    fake.error = "this is a text";
    fake.top = audio("audio/x-wav");
    EXPECT_FALSE(discover());
    expect_log(G_LOG_LEVEL_INFO, "Discoverer error: 'this is a text'.");
    expect_no_log();
    EXPECT_EQ(text(media_info), "{}");
}

TEST_F(DiscoverMedia, ErrorThatNamesTheFileIsLoggedWithThePath)
{
    fake.result = 2;
    fake.error_names_file = true;
    EXPECT_FALSE(discover());
    expect_log(G_LOG_LEVEL_INFO,
               "Discoverer error: 'Could not open file \"" + path + "\" for reading.'.");
    expect_no_log();
}

TEST_F(DiscoverMedia, DirectoryIsLeftToTheDiscoverer)
{
    const size_t before = count_open_files();
    fake.result = 2;
    fake.error_names_file = true;
    EXPECT_FALSE(discover_media(dir.root.c_str(), media_info));
    expect_log(G_LOG_LEVEL_INFO,
               "Discoverer error: 'Could not open file \"" + dir.root + "\" for reading.'.");
    expect_no_log();
    EXPECT_EQ(fake.discoverers, 1);
    EXPECT_EQ(count_open_files(), before);
}

TEST_F(DiscoverMedia, MissingPluginsAreLoggedWithThePath)
{
    const char *details[] = {"one", "two", nullptr};
    fake.result = 5;
    fake.error = "no plugin";
    fake.missing_plugins = details;
    EXPECT_FALSE(discover());
    expect_log(G_LOG_LEVEL_INFO, "Missing plugins for analyzing file '" + path + "'.");
    expect_no_log();
    EXPECT_EQ(fake.missing_plugins_asked, 1);
}

TEST_F(DiscoverMedia, MissingPluginsWithoutDetailsAreLogged)
{
    fake.result = 5;
    EXPECT_FALSE(discover());
    expect_log(G_LOG_LEVEL_INFO, "Missing plugins for analyzing file '" + path + "'.");
    expect_no_log();
}

TEST_F(DiscoverMedia, InvalidUriIsAnUnexpectedResult)
{
    fake.result = 1;
    EXPECT_FALSE(discover());
    expect_log(G_LOG_LEVEL_INFO, "Unexpected result when discovering '" + path + "', (code: 1).");
    expect_no_log();
}

TEST_F(DiscoverMedia, TimeOutIsAnUnexpectedResult)
{
    fake.result = 3;
    fake.error = "took too long";
    fake.top = audio("audio/x-wav");
    EXPECT_FALSE(discover());
    expect_log(G_LOG_LEVEL_INFO, "Unexpected result when discovering '" + path + "', (code: 3).");
    expect_no_log();
}

TEST_F(DiscoverMedia, BusyDiscovererIsAnUnexpectedResult)
{
    fake.result = 4;
    EXPECT_FALSE(discover());
    expect_log(G_LOG_LEVEL_INFO, "Unexpected result when discovering '" + path + "', (code: 4).");
    expect_no_log();
}

TEST_F(DiscoverMedia, FileWithoutStreamsIsRefusedSilently)
{
    EXPECT_FALSE(discover());
    EXPECT_EQ(text(media_info), "{}");
    expect_no_log();
}

/* The duration. */

TEST_F(DiscoverMediaDuration, DurationIsCutToWholeMilliseconds)
{
    fake.top = audio("audio/x-wav");
    EXPECT_EQ(duration_of(0), 0);
    EXPECT_EQ(duration_of(999999), 0);
    EXPECT_EQ(duration_of(1999999), 1);
    EXPECT_EQ(duration_of(90 * GST_SECOND), 90000);
}

TEST_F(DiscoverMediaDuration, DurationIsCutToThirtyTwoBits)
{
    fake.top = audio("audio/x-wav");
    EXPECT_EQ(duration_of(2147483647ULL * GST_MSECOND), 2147483647);
    EXPECT_EQ(duration_of(2147483648ULL * GST_MSECOND), -2147483648LL);
    EXPECT_EQ(duration_of(4294967297ULL * GST_MSECOND), 1);
}

TEST_F(DiscoverMediaDuration, UnknownDurationKeepsItsOddNumber)
{
    fake.top = audio("audio/x-wav");
    EXPECT_EQ(duration_of(GST_CLOCK_TIME_NONE), -140462611);
}

TEST_F(DiscoverMediaDuration, DurationThatCannotBeSetIsRefusedSilently)
{
    fake.top = audio("audio/x-wav");
    fake.key_that_fails = "duration";
    EXPECT_FALSE(discover());
    EXPECT_EQ(text(media_info), "{}");
    expect_no_log();
}

} // namespace
